#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "Platform/KernelExtensions/ControlHandler.h"
#include "Platform/Values/Value.h"

// The secret that the network extension has been told. Only the last one is kept, and none is left
// in memory when this ends.
class KeptSecret {
 public:
  static constexpr std::size_t kMaxBytes = 64;

  KeptSecret() = default;
  KeptSecret(const KeptSecret&) = delete;
  KeptSecret& operator=(const KeptSecret&) = delete;
  ~KeptSecret() { forget(); }

  // False, and nothing is changed, for one that is empty or too long.
  bool keep(std::span<const std::uint8_t> bytes);
  std::span<const std::uint8_t> bytes() const { return std::span(bytes_).first(size_); }

 private:
  void forget();

  std::array<std::uint8_t, kMaxBytes> bytes_{};  // in place, so that nothing ever copies it
  std::size_t size_ = 0;
};

// What one client of the network extension can ask: its version, and that it proves that it has
// the secret. Nobody is told the secret itself.
class NetworkControl final : public platform::ControlHandler {
 public:
  // `secret` is that of all clients. `onSecret` is called whenever one has been told.
  NetworkControl(std::int32_t version, KeptSecret& secret, std::function<void()> onSecret)
      : version_(version), secret_(secret), onSecret_(std::move(onSecret)) {}

  platform::Result<platform::Data> getOption(std::uint32_t option) override;
  platform::Result<void> setOption(std::uint32_t option,
                                   std::span<const std::uint8_t> bytes) override;

 private:
  const std::int32_t version_;
  KeptSecret& secret_;
  const std::function<void()> onSecret_;
  std::optional<platform::Data> challenge_;
};
