#include "NetworkControl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Challenge.h"

namespace {

constexpr std::uint32_t kVersionOption = 3;
constexpr std::uint32_t kSecretOption = 5;

}  // namespace

bool KeptSecret::keep(std::span<const std::uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > kMaxBytes) return false;
  forget();
  std::ranges::copy(bytes, bytes_.begin());
  size_ = bytes.size();
  return true;
}

void KeptSecret::forget() {
  ::explicit_bzero(bytes_.data(), bytes_.size());
  size_ = 0;
}

int NetworkControl::getOption(std::uint32_t option, vantor::Bytes& bytes) {
  switch (option) {
    case kVersionOption:
      bytes.resize(sizeof version_);
      std::memcpy(bytes.data(), &version_, sizeof version_);
      return 0;
    case kAnswerOption:
      return readAnswer(bytes);
    default:
      return ENOPROTOOPT;
  }
}

int NetworkControl::readAnswer(vantor::Bytes& bytes) {
  if (!challenge_) return ENOENT;
  if (secret_.bytes().empty()) return ENOKEY;  // No secret has been told.
  auto answer = answerToChallenge(secret_.bytes(), *challenge_);
  challenge_.reset();  // A challenge is answered once.
  if (!answer) return EIO;
  bytes = *std::move(answer);
  return 0;
}

int NetworkControl::setOption(std::uint32_t option, const std::uint8_t* bytes, std::size_t size) {
  switch (option) {
    case kSecretOption:
      if (!secret_.keep({bytes, size})) return EINVAL;
      onSecret_();
      return 0;
    case kChallengeOption:
      if (size == 0 || size > kMaxChallengeBytes) return EINVAL;
      challenge_.emplace(bytes, bytes + size);
      return 0;
    default:
      return ENOPROTOOPT;
  }
}
