#include "Libraries/Static/Interprocess Communications/VantorDistantObject/RandomNumber.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

bool generateRandomNumber(platform::RandomDevice& device, std::span<std::uint8_t> buffer) {
  const auto size = device.read(buffer);
  if (!size) {
    errno = size.error().osError;
    std::perror("randgetter");
    std::exit(255);
  }
  return *size == buffer.size();
}
