// A job for the tests: says "ready", then runs until a signal ends it. If its name ends with
// "stubborn", it ignores SIGTERM.

#include <csignal>
#include <cstdio>
#include <string_view>

#include <unistd.h>

int main(int, char** argv) {
  if (std::string_view(argv[0]).ends_with("stubborn")) std::signal(SIGTERM, SIG_IGN);
  std::puts("ready");
  std::fflush(stdout);
  for (;;) ::pause();
}
