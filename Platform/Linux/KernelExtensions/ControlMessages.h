#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Platform/KernelExtensions/KernelControls.h"

namespace platform {

// What travels on a control connection, a SOCK_SEQPACKET socket: a request is one packet, the
// answer to it another, both with the numbers of this machine's own byte order.

enum class ControlOperation : std::uint32_t {
  kGetOption = 1,
  kSetOption = 2,
  kPrepareToUnload = 3,
  kPing = 4  // answered without the extension's handler
};

// Followed by the bytes of an option that is set, and by nothing else.
struct ControlRequest {
  std::uint32_t operation = 0;
  std::uint32_t option = 0;
};

// Followed by the bytes of an option that was asked for.
struct ControlAnswer {
  std::int32_t errorNumber = 0;  // 0 where it was done
};

// With room for one byte too many, so that a longer packet is noticed.
using ControlRequestBuffer =
    std::array<std::uint8_t, sizeof(ControlRequest) + kMaxControlOptionBytes + 1>;
using ControlAnswerBuffer =
    std::array<std::uint8_t, sizeof(ControlAnswer) + kMaxControlOptionBytes + 1>;

}  // namespace platform
