#include "Challenge.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

std::optional<vantor::Bytes> answerToChallenge(std::span<const std::uint8_t> secret,
                                               std::span<const std::uint8_t> challenge) {
  vantor::Bytes answer(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()), challenge.data(),
           challenge.size(), answer.data(), &size) == nullptr) {
    return std::nullopt;
  }
  answer.resize(size);
  return answer;
}
