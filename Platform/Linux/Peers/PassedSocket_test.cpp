#include "Platform/Linux/Peers/PassedSocket.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kFirst = 3;
constexpr char kName[] = "com.example.service";

// Runs the action in a process of its own and returns its text: descriptor 3 and the environment
// belong to the process, and libdbus uses them only once.
std::string inAnotherProcess(const std::function<std::string()>& action) {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    const int out = ::fcntl(writeEnd.get(), F_DUPFD_CLOEXEC, 100);  // Away from descriptor 3.
    const std::string said = action();
    ::_exit(::write(out, said.data(), said.size()) == static_cast<ssize_t>(said.size()) ? 0 : 1);
  }
  writeEnd.reset();
  std::string said;
  std::array<char, 4096> bytes;
  for (ssize_t size; (size = ::read(readEnd.get(), bytes.data(), bytes.size())) > 0;) {
    said.append(bytes.data(), static_cast<std::size_t>(size));
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  return said;
}

class PassedSocketTest : public testing::Test {
 protected:
  enum class Passed { kNothing, kListening, kSilent, kDatagram, kFile };

  // In the child: puts the descriptor where a job host does.
  void pass(Passed what) const {
    ::close(kFirst);
    int made = -1;
    switch (what) {
      case Passed::kNothing:
        return;
      case Passed::kFile:
        made = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        break;
      case Passed::kListening:
      case Passed::kSilent:
        made = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        break;
      case Passed::kDatagram:
        made = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        break;
    }
    if (what == Passed::kListening) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      const std::string path = folder_.path("socket");
      std::memcpy(address.sun_path, path.data(), path.size());
      ::bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
      ::listen(made, 8);
    }
    if (made != kFirst) {
      ::dup2(made, kFirst);
      ::close(made);
    }
  }

  struct Environment {
    std::string process = "this";
    std::string count = "1";
    std::string names = kName;
  };
  // The result of takeFromEnvironment(), and the variables that are left.
  std::string take(Passed what, const Environment& environment) const {
    return inAnotherProcess([&] {
      pass(what);
      const std::string process =
          environment.process == "this" ? std::to_string(::getpid()) : environment.process;
      ::setenv("LISTEN_PID", process.c_str(), 1);
      ::setenv("LISTEN_FDS", environment.count.c_str(), 1);
      ::setenv("LISTEN_FDNAMES", environment.names.c_str(), 1);
      const auto taken = PassedSocket::takeFromEnvironment();
      std::string said = !taken   ? describe(taken.error())
                         : *taken ? "took " + (*taken)->machService
                                  : "nothing";
      if (taken && *taken && !(*taken)->server) said += " without a server";
      for (const char* name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"}) {
        if (std::getenv(name) != nullptr) said += std::string(", left ") + name;
      }
      return said;
    });
  }

  TemporaryFolder folder_;
};

TEST_F(PassedSocketTest, AListeningSocketIsTakenByItsName) {
  EXPECT_EQ(take(Passed::kListening, {}), std::string("took ") + kName);
}

TEST_F(PassedSocketTest, SocketsOfAnotherProcessAreNotTakenOrInherited) {
  EXPECT_EQ(take(Passed::kListening, {.process = "1"}), "nothing");
  EXPECT_EQ(take(Passed::kListening, {.process = ""}), "nothing");
  EXPECT_EQ(take(Passed::kNothing, {.count = ""}), "nothing");
}

TEST_F(PassedSocketTest, WithoutAnEnvironmentThereIsNothing) {
  const std::string said = inAnotherProcess([] {
    const auto taken = PassedSocket::takeFromEnvironment();
    return std::string(taken && !*taken ? "nothing" : "something");
  });
  EXPECT_EQ(said, "nothing");
}

TEST_F(PassedSocketTest, NoSocketOrSeveralAreAnErrorWithAReason) {
  for (const char* count : {"0", "2", "-1", "one", "1x"}) {
    EXPECT_THAT(take(Passed::kListening, {.count = count}),
                AllOf(StartsWith("the sockets that this process was started with: "),
                      HasSubstr(std::string("expected one, not ") + count)));
  }
}

TEST_F(PassedSocketTest, ASocketHasOneName) {
  for (const char* names : {"", "a:b", ":"}) {
    EXPECT_THAT(take(Passed::kListening, {.names = names}),
                HasSubstr("expected one name in LISTEN_FDNAMES"));
  }
}

TEST_F(PassedSocketTest, ASocketThatDoesNotListenIsRefused) {
  for (const Passed what : {Passed::kNothing, Passed::kSilent, Passed::kDatagram, Passed::kFile}) {
    EXPECT_THAT(take(what, {}), HasSubstr("descriptor 3 is not a Unix stream socket that listens"));
  }
}

}  // namespace
}  // namespace platform
