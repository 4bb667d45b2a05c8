#include "Tests/EndToEnd/ChildProgram.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Logging/BlockedSignal.h"

namespace platform {
namespace {

constexpr int kDeadlineMilliseconds = 60'000;

bool waitUntilReadable(int descriptor, int milliseconds) {
  pollfd entry{.fd = descriptor, .events = POLLIN, .revents = 0};
  return ::poll(&entry, 1, milliseconds) == 1;
}

struct Pipe {
  UniqueFd reader;
  UniqueFd writer;
};

Pipe makePipe() {
  std::array<int, 2> ends;
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) std::abort();
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::string readToItsEnd(int descriptor) {
  std::string text;
  std::array<char, 4096> chunk;
  for (ssize_t size; (size = ::read(descriptor, chunk.data(), chunk.size())) > 0;) {
    text.append(chunk.data(), static_cast<std::size_t>(size));
  }
  return text;
}

// Nothing at the end of the input; text without a line end is dropped.
std::optional<std::string> lineFrom(int descriptor) {
  std::string line;
  for (;;) {
    if (!waitUntilReadable(descriptor, kDeadlineMilliseconds)) {
      ADD_FAILURE() << "nothing comes behind \"" << line << "\"";
      return std::nullopt;
    }
    char character = 0;
    if (::read(descriptor, &character, 1) != 1) return std::nullopt;
    if (character == '\n') return line;
    line += character;
  }
}

}  // namespace

ChildProgram::ChildProgram(std::vector<std::string> arguments,
                           std::vector<std::string> environment) {
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) {
      environment.push_back(std::string(name) + "=" + value);
    }
  }
  Pipe input = makePipe();
  Pipe output = makePipe();
  Pipe errors = makePipe();
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input.reader.get(), 0);
  ::posix_spawn_file_actions_adddup2(&actions, output.writer.get(), 1);
  ::posix_spawn_file_actions_adddup2(&actions, errors.writer.get(), 2);
  const int error = ::posix_spawn(&process_, arguments.front().c_str(), &actions, nullptr,
                                  pointersTo(arguments).data(), pointersTo(environment).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    ADD_FAILURE() << arguments.front() << ": " << std::strerror(error);
    ended_ = true;
  }
  input_ = std::move(input.writer);
  output_ = std::move(output.reader);
  errors_ = std::move(errors.reader);
}

ChildProgram::~ChildProgram() {
  if (ended_) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

void ChildProgram::signal(int number) const {
  if (ended_) return;
  EXPECT_EQ(::kill(process_, number), 0);
}

void ChildProgram::send(const std::string& line) const {
  const std::string text = line + "\n";
  BlockedSignal brokenPipe(SIGPIPE);
  if (::write(input_.get(), text.data(), text.size()) < 0) brokenPipe.discard();
}

std::string ChildProgram::nextLine() {
  const auto line = lineFrom(output_.get());
  if (!line) ADD_FAILURE() << "no further line";
  return line.value_or("");
}

std::optional<std::string> ChildProgram::nextLineIfAny() { return lineFrom(output_.get()); }

std::string ChildProgram::nextErrorLine() {
  const auto line = lineFrom(errors_.get());
  if (!line) ADD_FAILURE() << "no further line of errors";
  return line.value_or("");
}

ExitStatus ChildProgram::waitForExit() {
  const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, process_, 0)));
  if (!waitUntilReadable(pidfd.get(), kDeadlineMilliseconds)) {
    ADD_FAILURE() << "the program does not end";
    return {};
  }
  siginfo_t info{};
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED), 0);
  ended_ = true;
  const bool exited = info.si_code == CLD_EXITED;
  return {exited ? ExitStatus::Kind::kExited : ExitStatus::Kind::kSignalled, info.si_status};
}

std::string ChildProgram::restOfOutput() { return readToItsEnd(output_.get()); }

std::string ChildProgram::errors() { return readToItsEnd(errors_.get()); }

void runTestAsNobody(const std::string& name) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  const auto asNobody = [](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    return ChildProgram(std::move(arguments), {});
  };
  if (asNobody({"/usr/bin/test", "-x", program}).waitForExit() != ExitStatus{}) {
    GTEST_SKIP() << "a user without rights can't execute " << program;
  }
  ChildProgram nobody = asNobody({program, "--gtest_filter=" + name});
  std::string output;
  while (const auto line = nobody.nextLineIfAny()) output += *line + "\n";
  EXPECT_EQ(nobody.waitForExit(), ExitStatus{}) << nobody.errors();
  EXPECT_NE(output.find("] 1 test"), output.npos) << output;
  EXPECT_EQ(output.find("[  FAILED  ]"), output.npos) << output;
}

NotifySocket::NotifySocket(const std::string& path)
    : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
}

std::string NotifySocket::next() {
  std::array<char, 256> message;
  if (!waitUntilReadable(socket_.get(), kDeadlineMilliseconds)) {
    ADD_FAILURE() << "nothing further was announced";
    return "";
  }
  const ssize_t size = ::recv(socket_.get(), message.data(), message.size(), 0);
  return std::string(message.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

bool NotifySocket::hasMore() const { return waitUntilReadable(socket_.get(), 0); }

}  // namespace platform
