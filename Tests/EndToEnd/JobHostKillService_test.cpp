// The socket of a job's service outlives the job host that bound it: clients that have connected,
// and clients that connect while there is no host, wait in the same backlog.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/Sockets/SocketName.h"
#include "Tests/EndToEnd/JobHostKill_fixture.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The number of the first passed descriptor in a process.
constexpr int kPassedSocket = 3;

class JobHostKillService : public JobHostKill {
 protected:
  void serve() { host_->send("serve " + service_ + " 0"); }
  void remove() {
    host_->send("remove " + service_);
    ASSERT_EQ(host_->nextLine(), "done");
  }

  // The socket that a process was passed.
  static UniqueFd socketOf(ProcessId process) {
    const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    UniqueFd socket(static_cast<int>(::syscall(SYS_pidfd_getfd, pidfd.get(), kPassedSocket, 0)));
    EXPECT_TRUE(socket) << "process " << process << " has no socket";
    return socket;
  }
  static ino_t inodeOf(const UniqueFd& socket) {
    struct stat status{};
    EXPECT_EQ(::fstat(socket.get(), &status), 0);
    return status.st_ino;
  }

  // The file name by which all sockets of the service are bound.
  static std::string boundNameOf(const UniqueFd& socket) {
    sockaddr_un address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    const std::string path = address.sun_path;
    return path.substr(path.rfind('/'));
  }
  // The number of listening sockets that were bound by that name.
  static std::size_t listeners(const std::string& boundName) {
    std::size_t count = 0;
    std::ifstream sockets("/proc/net/unix");
    for (std::string line; std::getline(sockets, line);) {
      std::istringstream words(line);
      std::string number, references, protocol, flags;
      words >> number >> references >> protocol >> flags;
      if (flags == "00010000" && line.ends_with(boundName)) ++count;
    }
    return count;
  }

  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.push_back(entry.path().filename());
    }
    return names;
  }
  void expectNothingIsLeft(const std::string& boundName) const {
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_EQ(listeners(boundName), 0u);
  }

  UniqueFd connected() const {
    auto socket = connectToSocket(folder_ + "/" + service_, std::chrono::seconds(60));
    EXPECT_TRUE(socket) << describe(socket.error());
    return socket ? *std::move(socket) : UniqueFd();
  }
  // Accepts the waiting clients.
  static int acceptAll(const UniqueFd& listener) {
    int count = 0;
    for (pollfd entry{listener.get(), POLLIN, 0}; ::poll(&entry, 1, 0) == 1; ++count) {
      const UniqueFd accepted(::accept(listener.get(), nullptr, nullptr));
      EXPECT_TRUE(accepted);
      if (!accepted) break;
    }
    return count;
  }

  // Expects one name with one socket, which the next process gets too.
  void expectServed(ProcessId process, const std::string& boundName) {
    const UniqueFd socket = socketOf(process);
    EXPECT_EQ(boundNameOf(socket), boundName);
    EXPECT_THAT(names(), ElementsAre(service_));
    EXPECT_EQ(listeners(boundName), 1u);
    const UniqueFd client = connected();
    EXPECT_EQ(acceptAll(socket), 1);
    killAndAwait(process);
    const ProcessId next = list()[service_];
    ASSERT_GT(next, 0);
    EXPECT_NE(next, process);
    EXPECT_EQ(inodeOf(socketOf(next)), inodeOf(socket));
  }

  const std::string service_ = label(kJobs);
  const std::string folder_ = root_.path("run/vantor/mach");
};

TEST_F(JobHostKillService, AtEverySystemCallOfASubmission) {
  const std::string trace = root_.path("trace");
  {
    const Tracer tracer(host_->process(), {}, trace);
    serve();
    ASSERT_EQ(host_->nextLine(), "done");
  }
  const std::vector<TracedCall> calls = callsIn(trace);
  const std::string boundName = boundNameOf(socketOf(list()[service_]));
  remove();
  expectNothingIsLeft(boundName);
  std::vector<TracedCall> killed;
  for (const TracedCall& call : calls) {
    SCOPED_TRACE("killed at call " + std::to_string(call.number) + " of " + call.name);
    std::optional<std::string> answer;
    {
      const Tracer tracer(host_->process(), call.killThere());
      serve();
      answer = host_->nextLineIfAny();
    }
    if (!answer) killed.push_back(call);
    endHost();
    // A client connects while there is no host.
    UniqueFd socket;
    UniqueFd client;
    const auto processes = processesByLabel(service_);
    EXPECT_LE(processes.size(), 1u);
    if (!processes.empty()) {
      socket = socketOf(processes.begin()->second);
      client = connected();
    }
    startHost();
    auto now = list();
    EXPECT_TRUE(now.contains(service_) || !answer);
    EXPECT_TRUE(now.contains(service_) || processes.empty());
    if (now.contains(service_)) {
      if (socket) {
        EXPECT_EQ(now[service_], processes.begin()->second);
        EXPECT_EQ(acceptAll(socket), 1);
      }
      socket.reset();
      expectServed(now[service_], boundName);
      remove();
      now.erase(service_);
    }
    expectNothingIsLeft(boundName);
    ASSERT_EQ(now, jobs_);
    expectNoneLostNoneDoubled();
    if (HasFailure()) return;
  }
  expectKilled(killed, calls, {"write", "bind", "listen", "clone"});
}

// The same holds for an unprivileged user's host.
TEST(JobHostKillServiceAsNobody, AtEverySystemCallOfASubmission) {
  if (::geteuid() != 0) GTEST_SKIP() << "the test of JobHostKillService is an ordinary user's";
  runTestAsNobody("JobHostKillService.AtEverySystemCallOfASubmission");
}

}  // namespace
}  // namespace platform
