#include "JobHost/Systemd/StarterChannel.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "JobHost/Systemd/JobUnit.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::retryOnInterrupt;
using platform::systemError;
using platform::UniqueFd;

// The variables that systemd does not set, and those that hold the process's number.
std::vector<std::string> variablesByStarter(const JobDefinition& job, const JobMark& mark,
                                            std::size_t listeners) {
  std::vector<std::string> variables;
  for (const auto& [name, text] : job.environment) {
    const bool isOurs = name == kJobMarkVariable || name.starts_with("LISTEN_");
    if (!isSetBySystemd(name) && !isOurs) variables.push_back(name + "=" + text);
  }
  if (listeners > 0) {
    variables.push_back(fmt::format("LISTEN_FDS={}", listeners));
    variables.push_back(fmt::format("LISTEN_FDNAMES={}", fmt::join(job.machServices, ":")));
    variables.push_back("LISTEN_PID=0000000000");
  }
  variables.push_back(jobMarkVariable(mark));
  return variables;
}

std::string contentOf(const JobDefinition& job, const JobMark& mark,
                      const StarterChannel::Passed& passed) {
  const auto variables = variablesByStarter(job, mark, passed.listeners.size());
  StartMessage message;
  message.arguments = static_cast<std::uint32_t>(job.arguments.size());
  message.variables = static_cast<std::uint32_t>(variables.size());
  message.listeners = static_cast<std::uint32_t>(passed.listeners.size());
  message.hasProgram = passed.program ? 1 : 0;
  message.isScript = passed.program && passed.program->isScript() ? 1 : 0;
  message.changesRoot = job.rootDirectory ? 1 : 0;
  message.dropsGroups = !job.initGroups && job.userName ? 1 : 0;
  std::string content(reinterpret_cast<const char*>(&message), sizeof message);
  const auto add = [&](const std::string& text) { content.append(text.c_str(), text.size() + 1); };
  add(job.program);
  add(job.rootDirectory.value_or("/"));
  add(job.workingDirectory);
  for (const std::string& argument : job.arguments) add(argument);
  for (const std::string& variable : variables) add(variable);
  return content;
}

Result<UniqueFd> fileWith(const std::string& content) {
  UniqueFd file(::memfd_create("job", MFD_CLOEXEC));
  if (!file) return std::unexpected(systemError("the message to the starter"));
  std::size_t written = 0;
  while (written < content.size()) {
    const ssize_t count = retryOnInterrupt(
        [&] { return ::write(file.get(), content.data() + written, content.size() - written); });
    if (count < 0) return std::unexpected(systemError("the message to the starter"));
    written += static_cast<std::size_t>(count);
  }
  return file;
}

Result<void> sendDescriptors(int socket, const std::vector<int>& descriptors) {
  char byte = 0;
  iovec bytes{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaximumPlaces)]{};
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(sizeof(int) * descriptors.size());
  cmsghdr* const first = CMSG_FIRSTHDR(&message);
  first->cmsg_level = SOL_SOCKET;
  first->cmsg_type = SCM_RIGHTS;
  first->cmsg_len = CMSG_LEN(sizeof(int) * descriptors.size());
  std::memcpy(CMSG_DATA(first), descriptors.data(), sizeof(int) * descriptors.size());
  if (::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) == 1) return {};
  return std::unexpected(systemError("passing the descriptors"));
}

std::string describeStarterStage(StartStage stage, const JobDefinition& job) {
  switch (stage) {
    case StartStage::kMessage:
      return "the starter of jobs";
    case StartStage::kDescriptors:
      return "passing the descriptors";
    case StartStage::kGroups:
      return "setgroups";
    case StartStage::kRootDirectory:
      return "key \"RootDirectory\": chroot to " +
             platform::quotedWhole(job.rootDirectory.value_or("/"));
    case StartStage::kWorkingDirectory:
      return "key \"WorkingDirectory\": chdir to " + platform::quotedWhole(job.workingDirectory);
    case StartStage::kExecute:
      return "executing " + platform::quotedWhole(job.program);
  }
  return "starting";
}

}  // namespace

Result<StarterChannel> StarterChannel::open(const JobDefinition& job, const JobMark& mark,
                                            const Passed& passed) {
  StarterChannel channel;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    return std::unexpected(systemError("the channel to the starter"));
  }
  channel.hostEnd_.reset(ends[0]);
  channel.starterEnd_.reset(ends[1]);
  const int wants = 1;
  int pipe[2];
  if (::setsockopt(ends[0], SOL_SOCKET, SO_PASSCRED, &wants, sizeof wants) != 0 ||
      ::pipe2(pipe, O_CLOEXEC) != 0) {
    return std::unexpected(systemError("the channel to the starter"));
  }
  channel.failures_.reset(pipe[0]);
  const UniqueFd starterPipe(pipe[1]);
  const auto content = fileWith(contentOf(job, mark, passed));
  if (!content) return std::unexpected(content.error());
  std::vector<int> descriptors{content->get(), passed.standardInput, starterPipe.get()};
  if (passed.program) descriptors.push_back(passed.program->get());
  descriptors.insert(descriptors.end(), passed.listeners.begin(), passed.listeners.end());
  if (auto sent = sendDescriptors(ends[0], descriptors); !sent)
    return std::unexpected(std::move(sent.error()));
  return channel;
}

std::optional<platform::ProcessId> StarterChannel::takeReady() {
  char byte = 0;
  iovec bytes{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))]{};
  msghdr message{};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = ::recvmsg(hostEnd_.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  const cmsghdr* const first = count == 1 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (!first || first->cmsg_type != SCM_CREDENTIALS || byte != kReady) return std::nullopt;
  ucred sender{};
  std::memcpy(&sender, CMSG_DATA(first), sizeof sender);
  return sender.pid;
}

Result<void> StarterChannel::go() {
  if (::send(hostEnd_.get(), &kGo, 1, MSG_NOSIGNAL | MSG_DONTWAIT) != 1) {
    return std::unexpected(systemError("the starter of jobs"));
  }
  return {};
}

bool StarterChannel::awaitExecution(platform::Duration limit) {
  pollfd entry{failures_.get(), POLLIN, 0};
  const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit).count();
  return retryOnInterrupt([&] { return ::poll(&entry, 1, static_cast<int>(milliseconds)); }) > 0;
}

Result<void> StarterChannel::takeExecution(const JobDefinition& job) {
  if (!awaitExecution(platform::Duration::zero())) {
    return std::unexpected(
        Error{ErrorCode::kSystem, ETIMEDOUT, describeStarterStage(StartStage::kExecute, job)});
  }
  StartFailure failure;
  const ssize_t count =
      retryOnInterrupt([&] { return ::read(failures_.get(), &failure, sizeof failure); });
  if (count == 0) return {};
  return std::unexpected(
      Error{ErrorCode::kSystem, failure.error, describeStarterStage(failure.stage, job)});
}

}  // namespace jobhost
