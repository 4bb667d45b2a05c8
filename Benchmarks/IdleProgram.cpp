// A program that waits for a signal from its first instruction on. An ordinary one first loads its
// libraries, which takes longer than its submission, and on the same processor that counts, too.

#include <sys/syscall.h>
#include <unistd.h>

extern "C" [[noreturn]] void _start();

// Nothing has been initialized, so this uses nothing of the library but the bare call.
void _start() {
  for (;;) ::syscall(SYS_ppoll, nullptr, 0, nullptr, nullptr, 0);
}
