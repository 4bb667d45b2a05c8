// A job for the tests: says "ready", then runs until a signal ends it, or, with a number of
// milliseconds as its argument, fails after that time. If its name ends with "stubborn", it ignores
// SIGTERM.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <poll.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (std::string_view(argv[0]).ends_with("stubborn")) std::signal(SIGTERM, SIG_IGN);
  std::puts("ready");
  std::fflush(stdout);
  if (argc == 2) {
    ::poll(nullptr, 0, std::atoi(argv[1]));
    return 1;
  }
  for (;;) ::pause();
}
