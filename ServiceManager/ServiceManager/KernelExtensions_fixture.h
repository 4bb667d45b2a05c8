#pragma once

// The daemon with a network extension, another one, and services that need them.

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

inline constexpr char kLoadNetwork[] = "load com.vantor.nke.wfk";
inline constexpr char kUnloadNetwork[] = "unload com.vantor.nke.wfk";
inline constexpr char kLoadOther[] = "load com.example.nke.other";

class KernelExtensionsFixture : public ServiceManagerFixture {
 protected:
  using Data = platform::Data;

  static constexpr char kNetwork[] = "com.vantor.nke.wfk";
  static constexpr char kOther[] = "com.example.nke.other";

  // What an extension answers and is told; all its connections share it.
  struct Extension {
    Data version = integer(5);  // the answer to option 3
    bool refusesToAnswer = false;
    bool refusesSecrets = false;
    std::vector<std::pair<std::uint32_t, Data>> told;
    std::function<void()> onQuestion;
  };

  class Handler final : public platform::ControlHandler {
   public:
    explicit Handler(Extension& extension) : extension_(extension) {}
    platform::Result<Data> getOption(std::uint32_t option) override {
      EXPECT_EQ(option, 3u);
      if (extension_.onQuestion) extension_.onQuestion();
      if (extension_.refusesToAnswer) return std::unexpected(platform::Error{});
      return extension_.version;
    }
    platform::Result<void> setOption(std::uint32_t option,
                                     std::span<const std::uint8_t> bytes) override {
      if (extension_.refusesSecrets) return std::unexpected(platform::Error{});
      extension_.told.emplace_back(option, Data(bytes.begin(), bytes.end()));
      return {};
    }

   private:
    Extension& extension_;
  };

  KernelExtensionsFixture() {
    install(kNetwork, network_);
    install(kOther, other_);
    use(catalogueOfKexts());
    manager().setSecret(Value(secret_));
  }

  static Data integer(std::int32_t number) {
    Data bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
  }

  void install(const char* identifier, Extension& extension) {
    extensions_.install(identifier, [&extension] { return std::make_unique<Handler>(extension); });
  }

  // The agent needs both extensions, the helper the network one, the primary service none.
  static Dictionary catalogueOfKexts() {
    Dictionary all =
        catalogue({{kPrimary, entry("configd")},
                   {kAgent, entry("agent", {{"KernelExtensions", Array{"net", "other"}}})},
                   {kHelper, entry("helper", {{"KernelExtensions", Array{"net"}}})}});
    all.set("KernelExtensions",
            Dictionary{{"net", Dictionary{{"Identifier", kNetwork}, {"Options", Array{"secure"}}}},
                       {"other", Dictionary{{"Identifier", kOther}, {"Options", Array()}}}});
    return all;
  }

  bool load(const char* identifier, const char* name, Array options = {}) {
    return manager().loadKextWithIdentifier(std::string(identifier), name, options);
  }
  std::vector<std::string> requests() const { return extensions_.requests(); }

  // Virtual time that a call takes.
  platform::Duration timeOf(const std::function<void()>& call) {
    const platform::Instant before = loop_.now();
    call();
    return loop_.now() - before;
  }

  const Data secret_{1, 2, 3, 4, 5, 6, 7, 8};
  Extension network_;
  Extension other_;
};
