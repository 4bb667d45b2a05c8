#include "Tests/EndToEnd/JobHostRoot.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Tests/EndToEnd/JobBackend.h"

namespace platform {
namespace {

constexpr int kHostDeadlineMilliseconds = 60'000;

UniqueFd openProcess(ProcessId process) {
  return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

// Whether within this time there is something to read or the process has ended.
bool awaitReadable(const UniqueFd& descriptor, int milliseconds) {
  pollfd entry{.fd = descriptor.get(), .events = POLLIN, .revents = 0};
  return retryOnInterrupt([&] { return ::poll(&entry, 1, milliseconds); }) == 1;
}

}  // namespace

JobHostRoot::JobHostRoot(const std::string& configuration) {
  const std::string file =
      folder_.write("etc/vantor/platform.plist",
                    "<plist version=\"1.0\"><dict><key>LogSink</key><string>file</string>" +
                        configuration + jobBackendEntry(configuration) + "</dict></plist>");
  std::filesystem::permissions(file, std::filesystem::perms(0644));
  // systemd executes the starter as the job's user.
  if (testsUseSystemd()) std::filesystem::permissions(folder_.path(), std::filesystem::perms(0755));
  std::filesystem::copy_file(JOBHOST, hostProgram());
  std::filesystem::copy_file(JOBSTART, folder_.path("jobstart"));
  std::filesystem::copy_file(SERVICEMANAGERCTL, controlProgram());
  std::filesystem::copy_file(SERVICEMANAGERCTL "-full", controlProgram() + "-full");
  std::filesystem::copy_file(JOB_PROGRAM, program());
  std::filesystem::copy_file(JOB_PROGRAM, stubbornProgram());
  std::filesystem::permissions(folder_.write("text", "neither a program nor a script\n"),
                               std::filesystem::perms(0644));
  EXPECT_EQ(::mkfifo(outputPath().c_str(), 0600), 0) << std::strerror(errno);
  // With a writer of our own, reading never reaches the end.
  output_.reset(::open(outputPath().c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_TRUE(output_) << std::strerror(errno);
  startHost();
}

JobHostRoot::~JobHostRoot() {
  if (!host_) startHost();  // Only a host can end the jobs.
  host_->signal(SIGTERM);
  EXPECT_EQ(host_->waitForExit(), (ExitStatus{ExitStatus::Kind::kExited, 0})) << host_->errors();
}

std::string JobHostRoot::nextOutput() {
  std::string line;
  for (char character = 0;; line += character) {
    if (!awaitReadable(output_, kHostDeadlineMilliseconds) ||
        ::read(output_.get(), &character, 1) != 1) {
      ADD_FAILURE() << "no further output but \"" << line << "\"";
      return line;
    }
    if (character == '\n') return line;
  }
}

void JobHostRoot::startHost() {
  host_ = std::make_unique<ChildProgram>(std::vector{hostProgram()},
                                         std::vector{"NOTIFY_SOCKET=" + folder_.path("notify")});
  EXPECT_EQ(readiness_.next(), "READY=1");
}

void JobHostRoot::killHost() {
  host_->signal(SIGKILL);
  host_->waitForExit();
  host_.reset();
}

JobHostRoot::Finished JobHostRoot::control(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), controlProgram());
  ChildProgram program(std::move(arguments), {});
  const ExitStatus status = program.waitForExit();
  std::string output = program.restOfOutput();
  return {status, std::move(output), program.errors()};
}

void killAndAwait(ProcessId process) {
  const UniqueFd pidfd = openProcess(process);
  ASSERT_TRUE(pidfd) << std::strerror(errno);
  ASSERT_EQ(::kill(process, SIGKILL), 0) << std::strerror(errno);
  ASSERT_TRUE(awaitReadable(pidfd, kHostDeadlineMilliseconds));
}

bool isRunning(ProcessId process) {
  const UniqueFd pidfd = openProcess(process);
  return pidfd && !awaitReadable(pidfd, 0);
}

}  // namespace platform
