// With the set-user-ID bit: becomes root wholly, as no program of the system does without a
// password, and waits for a signal. For tests of marks in an environment that another user has
// made.

#include <cstdlib>

#include <unistd.h>

int main() {
  if (::setresuid(0, 0, 0) != 0) return EXIT_FAILURE;
  ::pause();
  return EXIT_SUCCESS;
}
