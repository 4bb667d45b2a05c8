#include "Platform/Testing/Machine/TestStream.h"

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace platform {

TestStream::TestStream() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
  ours_ = ends[0];
  peer_ = ends[1];
}

TestStream::~TestStream() {
  ::close(ours_);
  if (peer_ >= 0) ::close(peer_);
}

void TestStream::write(std::size_t count) {
  const std::vector<char> bytes(count, 'x');
  if (::write(peer_, bytes.data(), count) != static_cast<ssize_t>(count)) std::abort();
}

std::size_t TestStream::read(std::size_t count) {
  std::vector<char> bytes(count);
  const ssize_t got = ::recv(ours_, bytes.data(), count, MSG_DONTWAIT);
  return got < 0 ? 0 : static_cast<std::size_t>(got);
}

void TestStream::closePeer() {
  ::close(peer_);
  peer_ = -1;
}

TestFile::TestFile(Kind kind) {
  const char* path = kind == Kind::kDirectory ? "/tmp" : "/proc/self/exe";
  descriptor_ = ::open(path, O_RDONLY | O_CLOEXEC);
  if (descriptor_ < 0) std::abort();
  if (kind == Kind::kClosed) {
    ::close(descriptor_);
    open_ = false;
  }
}

TestFile::~TestFile() {
  if (open_) ::close(descriptor_);
}

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries))) - 1;
}

}  // namespace platform
