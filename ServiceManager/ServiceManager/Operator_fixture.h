#pragma once

// The operator's client, and a daemon whose services all run.

#include <chrono>
#include <optional>
#include <utility>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/StartUp_fixture.h"

class OperatorFixture : public StartUpFixture {
 protected:
  static constexpr char kForeign[] = "com.example.foreign";
  static constexpr char kServer[] = "com.vantor.servicemanager.operator.server";

  OperatorFixture() { keepsHealthRecord_ = true; }

  // Everything runs; the agent is a feature service, and another product has a service, too.
  void startAll() {
    Dictionary services = *catalogue()["Services"].dictionary();
    services.set(kAgent, entry("agent", {{"Features", Array{"web"}}}));
    services.set(kForeign, Dictionary{{"Products", Array{"kKLXInstallTypePersonalID"}}});
    Dictionary all = catalogue(services);
    const auto configuration = [](const char* source, Dictionary switches) {
      return Dictionary{{"Source", source}, {"Switches", std::move(switches)}};
    };
    all.set(
        "Features",
        Dictionary{{"web", Dictionary{{"Config", Array{configuration("common", {{"on", 1},
                                                                                {"level", "high"},
                                                                                {"kind", 1},
                                                                                {"none", 1}}),
                                                       configuration("unknown", {{"on", 1}})}}}}});
    install(all);
    settings("common") = {{"on", 1}, {"level", "low"}, {"kind", "1"}};
    startConfigurationServer();
    start();
    loop_.advanceBy(std::chrono::seconds(1));
    takeLog();
  }

  Value ask(const char* selector, Array arguments = {}) {
    if (!client_) {
      client_.emplace(VantorDistantObject::Environment{loop_, operator_.connections, *otherCenter_,
                                                       operator_.center, protocols_, system_},
                      kServer, kORBServiceManagerOperatorProtocol, std::nullopt);
    }
    const auto proxy = client_->rootProxy();
    platform::MessageResult answer;
    client_->setRecentException(std::nullopt);
    if (!proxy) return {};
    // Both programs are on one loop, so the client must not block it.
    proxy->sendMessageAsync(selector, arguments,
                            platform::MessageReply([&](platform::MessageResult result) {
                              answer = std::move(result);
                            }));
    loop_.runReady();
    if (!answer) client_->setRecentException(answer.error());
    return answer.value_or(Value());
  }
  Value factsOf(const char* label) { return ask("factsOfService:", {label}); }

  Program operator_{*this, 300};
  std::optional<VantorDistantObject> client_;
};
