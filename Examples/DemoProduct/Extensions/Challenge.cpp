#include "Examples/DemoProduct/Extensions/Challenge.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

std::optional<platform::Data> answerToChallenge(std::span<const std::uint8_t> secret,
                                                std::span<const std::uint8_t> challenge) {
  platform::Data answer(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()), challenge.data(),
           challenge.size(), answer.data(), &size) == nullptr) {
    return std::nullopt;
  }
  answer.resize(size);
  return answer;
}
