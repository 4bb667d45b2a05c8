#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>

#include <vantor/Extension.h>
#include <vantor/Value.h>

// The network extension's secret. Only the last one is kept, and none is left in memory when this
// ends.
class KeptSecret {
 public:
  static constexpr std::size_t kMaxBytes = 64;

  KeptSecret() = default;
  KeptSecret(const KeptSecret&) = delete;
  KeptSecret& operator=(const KeptSecret&) = delete;
  ~KeptSecret() { forget(); }

  // False, without a change, for a secret that is empty or too long.
  bool keep(std::span<const std::uint8_t> bytes);
  std::span<const std::uint8_t> bytes() const { return std::span(bytes_).first(size_); }

 private:
  void forget();

  std::array<std::uint8_t, kMaxBytes> bytes_{};  // in place, so that nothing ever copies it
  std::size_t size_ = 0;
};

// One client's view of the network extension: it can read the version, and make the extension prove
// that it has the secret. No client gets the secret itself.
class NetworkControl final : public vantor::ControlHandler {
 public:
  // All clients share `secret`. `onSecret` is called whenever a client has written one.
  NetworkControl(std::int32_t version, KeptSecret& secret, std::function<void()> onSecret)
      : version_(version), secret_(secret), onSecret_(std::move(onSecret)) {}

  int getOption(std::uint32_t option, vantor::Bytes& bytes) override;
  int setOption(std::uint32_t option, const std::uint8_t* bytes, std::size_t size) override;

 private:
  int readAnswer(vantor::Bytes& bytes);

  const std::int32_t version_;
  KeptSecret& secret_;
  const std::function<void()> onSecret_;
  std::optional<vantor::Bytes> challenge_;
};
