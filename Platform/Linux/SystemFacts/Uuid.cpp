#include "Platform/SystemFacts/Uuid.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include <fmt/format.h>
#include <sys/random.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

std::string newUuidString() {
  std::array<std::uint8_t, 16> bytes;
  // getrandom() returns so few bytes all at once or not at all.
  const ssize_t count =
      retryOnInterrupt([&] { return ::getrandom(bytes.data(), bytes.size(), 0); });
  if (count != static_cast<ssize_t>(bytes.size())) {
    std::perror("getrandom");
    std::abort();  // A predictable number could name two things alike.
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);  // the variant that has versions
  const auto group = [&](std::size_t first, std::size_t length) {
    return fmt::format("{:02X}", fmt::join(std::span(bytes).subspan(first, length), ""));
  };
  return fmt::format("{}-{}-{}-{}-{}", group(0, 4), group(4, 2), group(6, 2), group(8, 2),
                     group(10, 6));
}

}  // namespace platform
