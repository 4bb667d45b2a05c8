#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include <vantor/Value.h>

// The options of the demo's network extension beyond those that every one has.
inline constexpr std::uint32_t kChallengeOption = 6;  // written: the challenge
inline constexpr std::uint32_t kAnswerOption = 7;     // read: its answer
inline constexpr std::size_t kMaxChallengeBytes = 256;

// The answer that only a process with the secret can give: the HMAC-SHA-256 of the challenge under
// it. It does not reveal the secret. Nothing if the digest can't be made.
std::optional<vantor::Bytes> answerToChallenge(std::span<const std::uint8_t> secret,
                                               std::span<const std::uint8_t> challenge);
