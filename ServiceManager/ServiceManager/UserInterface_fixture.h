#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/Messages/Protocol.h"
#include "ServiceManager/ServiceManager/Protocols.h"

// A user interface that keeps the notices that it gets, in this program.
class UserInterface final : public platform::MessageReceiver {
 public:
  // `protocols` outlives this, and this outlives its proxy's last call.
  explicit UserInterface(const platform::ProtocolTable& protocols,
                         const char* protocol = kORBServiceManagerUserInterfaceDelegateProtocol)
      : proxy(std::make_shared<platform::NSProtocolChecker>(this, protocols.find(protocol))) {}
  UserInterface(const UserInterface&) = delete;
  UserInterface& operator=(const UserInterface&) = delete;

  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override {
    EXPECT_EQ(selector, "jobStatusDidChangeWithInfo:");
    notices.push_back(arguments.at(0));
    if (onNotice) onNotice();
    if (exception) return std::unexpected(*exception);
    return platform::Value();
  }

  const std::shared_ptr<const platform::NSProxy> proxy;
  std::optional<platform::NSException> exception;  // raised by each notice from now on
  std::function<void()> onNotice;
  std::vector<platform::Value> notices;
};
