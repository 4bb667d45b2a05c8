#pragma once

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "Platform/KernelExtensions/ControlHandler.h"
#include "Platform/KernelExtensions/KernelControls.h"

namespace platform {

// Option N returns the bytes that any client has written to it. The numbers below have other
// effects.
class KeepingHandler final : public ControlHandler {
 public:
  static constexpr std::uint32_t kRefused = 100;
  static constexpr std::uint32_t kRefusedWithoutReason = 101;
  static constexpr std::uint32_t kTooLong = 102;

  struct Kept {
    std::mutex mutex;  // The handlers may run on another thread than the test.
    std::vector<std::pair<std::uint32_t, Data>> options;
  };

  explicit KeepingHandler(Kept& kept) : kept_(kept) {}

  Result<Data> getOption(std::uint32_t option) override {
    if (option == kTooLong) return Data(kMaxControlOptionBytes + 1);
    if (auto refusal = refusalOf(option)) return std::unexpected(*refusal);
    const std::lock_guard lock(kept_.mutex);
    for (auto at = kept_.options.rbegin(); at != kept_.options.rend(); ++at) {
      if (at->first == option) return at->second;
    }
    return Data{};
  }
  Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) override {
    if (auto refusal = refusalOf(option)) return std::unexpected(*refusal);
    const std::lock_guard lock(kept_.mutex);
    kept_.options.emplace_back(option, Data(bytes.begin(), bytes.end()));
    return {};
  }

 private:
  static std::optional<Error> refusalOf(std::uint32_t option) {
    if (option == kRefused) return Error{ErrorCode::kDenied, EACCES, "not this one"};
    if (option == kRefusedWithoutReason) return Error{ErrorCode::kInvalid, 0, "nor this"};
    return std::nullopt;
  }
  Kept& kept_;
};

}  // namespace platform
