// Becomes a job's program. systemd executes this in the job's unit; the host has passed it a socket
// as its standard input (JobHost/Systemd/StartMessage.h). It has no options: the label in its
// arguments is for people.

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "JobHost/Systemd/StartMessage.h"

namespace {

using jobhost::StartFailure;
using jobhost::StartMessage;
using jobhost::StartStage;

constexpr std::size_t kNumberDigits = 10;
constexpr int kFirstListener = 3;

int pipeToHost = -1;

[[noreturn]] void fail(StartStage stage, int error) {
  const StartFailure failure{stage, error};
  if (pipeToHost >= 0 && ::write(pipeToHost, &failure, sizeof failure) < 0)
    ::_exit(jobhost::kStarterFailed);
  ::_exit(jobhost::kStarterFailed);
}

// The descriptors of the one message. All are closed when the program is executed.
std::vector<int> receiveDescriptors() {
  char byte = 0;
  iovec bytes{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * jobhost::kMaximumPlaces)];
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  if (::recvmsg(STDIN_FILENO, &message, MSG_CMSG_CLOEXEC) <= 0) ::_exit(jobhost::kStarterFailed);
  const cmsghdr* const first = CMSG_FIRSTHDR(&message);
  if (!first || first->cmsg_type != SCM_RIGHTS) ::_exit(jobhost::kStarterFailed);
  std::vector<int> received((first->cmsg_len - CMSG_LEN(0)) / sizeof(int));
  std::memcpy(received.data(), CMSG_DATA(first), received.size() * sizeof(int));
  if (received.size() < static_cast<std::size_t>(jobhost::kFirstFreePlace))
    ::_exit(jobhost::kStarterFailed);
  return received;
}

// Returns the content, which stays in memory.
char* readContent(int file, std::size_t& size) {
  struct stat status{};
  if (::fstat(file, &status) != 0) fail(StartStage::kMessage, errno);
  size = static_cast<std::size_t>(status.st_size);
  void* const content = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE, file, 0);
  if (content == MAP_FAILED || size < sizeof(StartMessage)) fail(StartStage::kMessage, errno);
  return static_cast<char*>(content);
}

class Texts {
 public:
  Texts(char* begin, char* end) : next_(begin), end_(end) {}

  char* next() {
    char* const text = next_;
    char* const zero =
        static_cast<char*>(std::memchr(text, 0, static_cast<std::size_t>(end_ - text)));
    if (!zero) fail(StartStage::kMessage, EBADMSG);
    next_ = zero + 1;
    return text;
  }

 private:
  char* next_;
  char* end_;
};

std::string_view nameOf(const char* variable) {
  const std::string_view text(variable);
  return text.substr(0, text.find('='));
}

// The marks of a job and of its sockets end with the process's number.
void fillInNumber(char* variable) {
  const std::string_view name = nameOf(variable);
  if (name == "LISTEN_PID") {
    std::snprintf(variable + name.size() + 1, kNumberDigits + 1, "%d",
                  static_cast<int>(::getpid()));
  }
  if (name != "VANTOR_JOB") return;
  char number[kNumberDigits + 1];
  std::snprintf(number, sizeof number, "%010d", static_cast<int>(::getpid()));
  const std::size_t size = std::strlen(variable);
  if (size >= kNumberDigits) std::memcpy(variable + size - kNumberDigits, number, kNumberDigits);
}

// systemd's variables, with those that the job sets besides at the end.
std::vector<char*> environmentWith(const std::vector<char*>& own) {
  std::vector<char*> variables;
  for (char** each = environ; *each; ++each) {
    const std::string_view name = nameOf(*each);
    bool isReplaced = name.starts_with("LISTEN_");
    for (const char* variable : own) isReplaced = isReplaced || nameOf(variable) == name;
    if (!isReplaced) variables.push_back(*each);
  }
  variables.insert(variables.end(), own.begin(), own.end());
  variables.push_back(nullptr);
  return variables;
}

void moveTo(int from, int to) {
  if (::dup2(from, to) < 0) fail(StartStage::kDescriptors, errno);
}

// The process had them for its start only.
void dropCapabilities() {
  ::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (::syscall(SYS_capget, &header, data) != 0) fail(StartStage::kGroups, errno);
  for (auto& each : data) each.inheritable = 0;
  if (::geteuid() != 0) {
    for (auto& each : data) each.effective = each.permitted = 0;
  }
  if (::syscall(SYS_capset, &header, data) != 0) fail(StartStage::kGroups, errno);
}

}  // namespace

int main() {
  std::vector<int> received = receiveDescriptors();
  // Above every number that the program gets, but not far, since the job may have a low limit.
  const int free = kFirstListener + static_cast<int>(received.size());
  for (int& descriptor : received) {
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, free);
    if (moved < 0) ::_exit(jobhost::kStarterFailed);
    ::close(std::exchange(descriptor, moved));
  }
  pipeToHost = received[jobhost::kPipePlace];
  std::size_t size = 0;
  char* const content = readContent(received[jobhost::kContentPlace], size);
  StartMessage message;
  std::memcpy(&message, content, sizeof message);
  Texts texts(content + sizeof message, content + size);
  const char* const program = texts.next();
  const char* const root = texts.next();
  const char* const folder = texts.next();
  std::vector<char*> arguments;
  for (std::uint32_t i = 0; i < message.arguments; ++i) arguments.push_back(texts.next());
  arguments.push_back(nullptr);
  std::vector<char*> own;
  for (std::uint32_t i = 0; i < message.variables; ++i) {
    own.push_back(texts.next());
    fillInNumber(own.back());
  }
  const std::size_t places = jobhost::kFirstFreePlace + message.hasProgram + message.listeners;
  if (received.size() != places) fail(StartStage::kMessage, EBADMSG);

  char answer = jobhost::kReady;
  if (::send(STDIN_FILENO, &answer, 1, MSG_NOSIGNAL) != 1) fail(StartStage::kMessage, errno);
  if (::recv(STDIN_FILENO, &answer, 1, 0) != 1 || answer != jobhost::kGo)
    fail(StartStage::kMessage, ECONNRESET);

  moveTo(received[jobhost::kInputPlace], STDIN_FILENO);
  int next = kFirstListener;
  const std::size_t firstListener = jobhost::kFirstFreePlace + message.hasProgram;
  for (std::uint32_t i = 0; i < message.listeners; ++i) moveTo(received[firstListener + i], next++);
  int programFile = message.hasProgram ? received[jobhost::kFirstFreePlace] : -1;
  // The script's interpreter opens the descriptor again.
  if (message.isScript) {
    moveTo(programFile, next);
    programFile = next;
  }
  if (message.dropsGroups) {
    const gid_t group = ::getegid();
    if (::setgroups(1, &group) != 0) fail(StartStage::kGroups, errno);
  }
  if (message.changesRoot) {
    if (::chroot(root) != 0) fail(StartStage::kRootDirectory, errno);
    if (::chdir(folder) != 0) fail(StartStage::kWorkingDirectory, errno);
  }
  if (message.dropsGroups || message.changesRoot) dropCapabilities();
  const std::vector<char*> variables = environmentWith(own);
  if (programFile >= 0) {
    ::execveat(programFile, "", arguments.data(), variables.data(), AT_EMPTY_PATH);
  } else {
    ::execve(program, arguments.data(), variables.data());
  }
  fail(StartStage::kExecute, errno);
}
