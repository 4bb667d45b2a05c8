#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "Platform/KernelExtensions/KernelControls.h"

namespace platform {

// The messages on a control connection, a SOCK_SEQPACKET socket. A request is one packet and its
// answer another. Numbers have this machine's byte order.

enum class ControlOperation : std::uint32_t {
  kGetOption = 1,
  kSetOption = 2,
  kPrepareToUnload = 3,
  kPing = 4  // answered without the extension's handler
};

// Only kSetOption has a payload: the bytes of the option.
struct ControlRequest {
  std::uint32_t operation = 0;
  std::uint32_t option = 0;
};

// The payload for kGetOption: the bytes of the option.
struct ControlAnswer {
  std::int32_t errorNumber = 0;  // 0 on success
};

// One byte larger than the largest packet, so that a longer one is detected.
using ControlRequestBuffer =
    std::array<std::uint8_t, sizeof(ControlRequest) + kMaxControlOptionBytes + 1>;
using ControlAnswerBuffer =
    std::array<std::uint8_t, sizeof(ControlAnswer) + kMaxControlOptionBytes + 1>;

}  // namespace platform
