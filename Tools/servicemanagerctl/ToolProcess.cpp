#include "Tools/servicemanagerctl/ToolProcess.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace platform;

namespace {

struct Pipe {
  UniqueFd reader;
  UniqueFd writer;
};

Result<Pipe> makePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0)
    return std::unexpected(Error{ErrorCode::kSystem, errno, "pipe2"});
  Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
  ::fcntl(pipe.reader.get(), F_SETFL, O_NONBLOCK);
  return pipe;
}

// The new process has no signal blocked, and its input is empty. Its process group is its own, so
// that Ctrl-C does not end it halfway.
Result<pid_t> spawn(const std::vector<std::string>& arguments, int output, int errors) {
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  sigset_t none;
  ::sigemptyset(&none);
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&files, errors, STDERR_FILENO);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  std::vector<char*> pointers;
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  pid_t process = -1;
  const int failure =
      ::posix_spawn(&process, "/proc/self/exe", &files, &attributes, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&files);
  ::posix_spawnattr_destroy(&attributes);
  if (failure != 0) return std::unexpected(Error{ErrorCode::kSystem, failure, "posix_spawn"});
  return process;
}

}  // namespace

Result<std::unique_ptr<ToolProcess>> ToolProcess::start(RunLoop& loop,
                                                        const std::vector<std::string>& arguments,
                                                        Ended ended) {
  auto output = makePipe();
  if (!output) return std::unexpected(output.error());
  auto errors = makePipe();
  if (!errors) return std::unexpected(errors.error());
  std::unique_ptr<ToolProcess> tool(new ToolProcess(loop, std::move(ended)));
  const auto process = spawn(arguments, output->writer.get(), errors->writer.get());
  if (!process) return std::unexpected(process.error());
  tool->process_ = *process;
  tool->output_.file = std::move(output->reader);
  tool->errors_.file = std::move(errors->reader);
  for (Stream* stream : {&tool->output_, &tool->errors_}) {
    if (const auto watched = tool->watch(*stream); !watched)
      return std::unexpected(watched.error());
  }
  return tool;
}

ToolProcess::~ToolProcess() {
  if (process_ < 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

void ToolProcess::detach() {
  output_.watch.reset();
  errors_.watch.reset();
  process_ = -1;
}

Result<void> ToolProcess::watch(Stream& stream) {
  auto watch =
      loop_.watchReadable(stream.file.get(), Urgency::kOrdinary, [this, &stream] { read(stream); });
  if (!watch) return std::unexpected(watch.error());
  stream.watch = std::move(*watch);
  return {};
}

void ToolProcess::read(Stream& stream) {
  std::array<char, 65'536> bytes;
  const ssize_t count = ::read(stream.file.get(), bytes.data(), bytes.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count > 0) {
    const std::size_t room = kMostBytes - stream.text.size();
    stream.text.append(bytes.data(), std::min(static_cast<std::size_t>(count), room));
    return;
  }
  stream.watch.reset();
  stream.file.reset();
  if (!output_.file && !errors_.file) conclude();
}

// Both ends are closed, so the process ends or has ended.
void ToolProcess::conclude() {
  int status = 0;
  const bool hasEnded = ::waitpid(std::exchange(process_, -1), &status, 0) > 0;
  const bool hasSucceeded = hasEnded && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  const auto ended = std::move(ended_);
  ended({hasSucceeded, std::move(output_.text), std::move(errors_.text)});
}
