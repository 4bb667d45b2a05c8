#pragma once

// A network extension, another extension, and services that need them.

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ServiceManager/Supervision/SupervisedMachine_fixture.h"

inline constexpr char kLoadNetwork[] = "load com.vantor.nke.wfk";
inline constexpr char kUnloadNetwork[] = "unload com.vantor.nke.wfk";
inline constexpr char kLoadOther[] = "load com.example.nke.other";

// `Machine` is a fixture on such a machine.
template <class Machine>
class WithKernelExtensions : public Machine {
 protected:
  using Data = platform::Data;
  using Array = platform::Array;
  using Dictionary = platform::Dictionary;
  using Machine::kAgent;
  using Machine::kHelper;
  using Machine::kPrimary;

  static constexpr char kNetwork[] = "com.vantor.nke.wfk";
  static constexpr char kOther[] = "com.example.nke.other";

  // The answers of an extension and the options that it was given; all its connections share them.
  struct Extension {
    Data version = integer(5);  // the answer to option 3
    bool refusesToAnswer = false;
    bool refusesSecrets = false;
    std::vector<std::pair<std::uint32_t, Data>> options;
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
      extension_.options.emplace_back(option, Data(bytes.begin(), bytes.end()));
      return {};
    }

   private:
    Extension& extension_;
  };

  WithKernelExtensions() {
    install(kNetwork, network_);
    install(kOther, other_);
    this->use(catalogueOfKexts());
  }

  static Data integer(std::int32_t number) {
    Data bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
  }

  void install(const char* identifier, Extension& extension) {
    this->extensions_.install(identifier,
                              [&extension] { return std::make_unique<Handler>(extension); });
  }

  // The agent needs both extensions, the helper the network one, the primary service none.
  static Dictionary catalogueOfKexts() {
    Dictionary all = Machine::catalogue(
        {{kPrimary, Machine::entry("configd")},
         {kAgent, Machine::entry("agent", {{"KernelExtensions", Array{"net", "other"}}})},
         {kHelper, Machine::entry("helper", {{"KernelExtensions", Array{"net"}}})}});
    all.set("KernelExtensions",
            Dictionary{{"net", Dictionary{{"Identifier", kNetwork}, {"Options", Array{"secure"}}}},
                       {"other", Dictionary{{"Identifier", kOther}, {"Options", Array()}}}});
    return all;
  }

  std::vector<std::string> requests() const { return this->extensions_.requests(); }

  // The virtual time that a call takes.
  platform::Duration timeOf(const std::function<void()>& call) {
    const platform::Instant before = this->loop_.now();
    call();
    return this->loop_.now() - before;
  }

  Extension network_;
  Extension other_;
};
