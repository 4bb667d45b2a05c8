#pragma once

#include <cstdint>
#include <span>

#include "Platform/SystemFacts/RandomDevice.h"

// Fills `buffer` with unpredictable bytes. False if the device delivers fewer. A device that can't
// be opened ends the process with status 255, after a line on standard error that begins with
// "randgetter: ".
bool generateRandomNumber(platform::RandomDevice& device, std::span<std::uint8_t> buffer);
