#include "Examples/DemoProduct/Extensions/NetworkControl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Examples/DemoProduct/Extensions/Challenge.h"

namespace {

constexpr std::uint32_t kVersionOption = 3;
constexpr std::uint32_t kSecretOption = 5;

std::unexpected<platform::Error> refuse(int number, const char* why) {
  return std::unexpected(platform::Error{platform::ErrorCode::kInvalid, number, why});
}

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

platform::Result<platform::Data> NetworkControl::getOption(std::uint32_t option) {
  switch (option) {
    case kVersionOption: {
      platform::Data bytes(sizeof version_);
      std::memcpy(bytes.data(), &version_, sizeof version_);
      return bytes;
    }
    case kAnswerOption: {
      if (!challenge_) return refuse(ENOENT, "there is no challenge");
      if (secret_.bytes().empty()) return refuse(ENOKEY, "no secret has been told");
      auto answer = answerToChallenge(secret_.bytes(), *challenge_);
      challenge_.reset();  // A challenge is answered once.
      if (!answer) return refuse(EIO, "the answer can't be made");
      return *std::move(answer);
    }
    default:
      return refuse(ENOPROTOOPT, "there is no such option to read");
  }
}

platform::Result<void> NetworkControl::setOption(std::uint32_t option,
                                                 std::span<const std::uint8_t> bytes) {
  switch (option) {
    case kSecretOption:
      if (!secret_.keep(bytes)) return refuse(EINVAL, "this is no secret");
      onSecret_();
      return {};
    case kChallengeOption:
      if (bytes.empty() || bytes.size() > kMaxChallengeBytes) {
        return refuse(EINVAL, "this is no challenge");
      }
      challenge_.emplace(bytes.begin(), bytes.end());
      return {};
    default:
      return refuse(ENOPROTOOPT, "there is no such option to write");
  }
}
