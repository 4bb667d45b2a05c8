#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Platform/Values/Value.h"

// The options of the demo's network extension beyond those that every one has.
inline constexpr std::uint32_t kChallengeOption = 6;  // written: what is to be answered
inline constexpr std::uint32_t kAnswerOption = 7;     // read: the answer to it
inline constexpr std::size_t kMaxChallengeBytes = 256;

// The answer that only who has the secret can give: the HMAC-SHA-256 of the challenge under it. It
// tells nobody the secret. Nothing where the digest can't be made.
std::optional<platform::Data> answerToChallenge(std::span<const std::uint8_t> secret,
                                                std::span<const std::uint8_t> challenge);
