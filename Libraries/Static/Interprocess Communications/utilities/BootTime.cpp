#include "Libraries/Static/Interprocess Communications/utilities/BootTime.h"

#include <cerrno>
#include <cstdio>

double systemBootTime(const platform::SystemInformation& system) {
  const auto seconds = system.bootTime();
  if (seconds) return static_cast<double>(*seconds);

  const platform::Error& error = seconds.error();
  if (error.osError != 0) {
    errno = error.osError;
    std::perror("sysctl");
  } else {
    std::fprintf(stderr, "sysctl: %s\n", error.context.c_str());
  }
  return -1.0;
}
