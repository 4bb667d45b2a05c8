#include "JobHost/Output/OutputReader.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Logging/ServiceOutputFile.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::retryOnInterrupt;
using platform::systemError;
using platform::UniqueFd;

constexpr mode_t kPipeMode = 0600;
constexpr std::size_t kReadBytes = 64 * 1024;
// How often unfinished lines are looked after.
constexpr int kTickMilliseconds = 500;
constexpr std::size_t kMaximumNames = 65'536;
// A start beyond them gets no pipe: each takes a descriptor.
constexpr std::size_t kMaximumPipesOfName = 64;

Result<UniqueFd> openPipe(const std::string& path, int flags) {
  UniqueFd pipe(retryOnInterrupt(
      [&] { return ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY); }));
  struct stat status{};
  if (!pipe || ::fstat(pipe.get(), &status) != 0)
    return std::unexpected(systemError("opening " + path));
  if (!S_ISFIFO(status.st_mode) || status.st_uid != ::geteuid())
    return std::unexpected(Error{ErrorCode::kDenied, 0, path + ": it is no pipe of this user"});
  return pipe;
}

// The name without the number of the start.
std::string_view identOf(std::string_view pipeName) {
  return pipeName.substr(0, pipeName.rfind('.'));
}

// Whether no process can write to the pipe. Only for a pipe that had a writer.
bool hasNoWriter(const UniqueFd& pipe) {
  pollfd entry{.fd = pipe.get(), .events = POLLIN, .revents = 0};
  return ::poll(&entry, 1, 0) == 1 && (entry.revents & POLLHUP) != 0 &&
         (entry.revents & POLLIN) == 0;
}

}  // namespace

Result<std::unique_ptr<OutputReader>> OutputReader::create(std::string folder,
                                                           platform::LogSink& sink,
                                                           std::function<platform::Instant()> now) {
  UniqueFd epoll(::epoll_create1(EPOLL_CLOEXEC));
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  epoll_event event{.events = EPOLLIN, .data = {.ptr = nullptr}};
  if (!epoll || !wake || ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &event) != 0)
    return std::unexpected(systemError("reading the output of services"));
  return std::unique_ptr<OutputReader>(
      new OutputReader(std::move(folder), sink, std::move(now), std::move(epoll), std::move(wake)));
}

OutputReader::OutputReader(std::string folder, platform::LogSink& sink,
                           std::function<platform::Instant()> now, UniqueFd epoll, UniqueFd wake)
    : folder_(std::move(folder)),
      sink_(sink),
      now_(std::move(now)),
      epoll_(std::move(epoll)),
      wake_(std::move(wake)) {}

OutputReader::~OutputReader() { stop(); }

Result<OutputReader::Stream*> OutputReader::add(const std::string& pipeName) {
  auto pipe = openPipe(pathOf(pipeName), O_RDONLY | O_NONBLOCK);
  if (!pipe) return std::unexpected(std::move(pipe.error()));
  const auto take = [this, ident = std::string(identOf(pipeName))](std::string_view line,
                                                                   bool isUrgent) {
    return sink_
        .write({.ident = ident,
                .facility = platform::kServiceOutputFacility,
                .level = platform::ASL_LEVEL_INFO,
                .message = line,
                .isUrgent = isUrgent})
        .has_value();
  };
  auto stream = std::make_unique<Stream>(Stream{pipeName, *std::move(pipe), OutputLines(take)});
  epoll_event event{.events = EPOLLIN, .data = {.ptr = stream.get()}};
  if (::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, stream->pipe.get(), &event) != 0)
    return std::unexpected(systemError("reading " + pathOf(pipeName)));
  return streams_.emplace(pipeName, std::move(stream)).first->second.get();
}

bool OutputReader::hasRoomFor(const std::string& name) const {
  std::size_t pipes = 0;
  for (auto each = streams_.lower_bound(name + '.');
       each != streams_.end() && each->first.starts_with(name + '.'); ++each) {
    if (identOf(each->first) == name) ++pipes;
  }
  return pipes < kMaximumPipesOfName;
}

// Names are left from earlier hosts. Each one is tried once.
Result<std::string> OutputReader::makePipe(const std::string& name) {
  for (;;) {
    std::string pipeName = fmt::format("{}.{}", name, ++starts_);
    if (::mkfifo(pathOf(pipeName).c_str(), kPipeMode) == 0) return pipeName;
    if (errno != EEXIST) return std::unexpected(systemError("making " + pathOf(pipeName)));
  }
}

Result<UniqueFd> OutputReader::openBothEnds(const std::string& pipeName) {
  // Before the reading end is in the map: without a writer the thread would remove the stream.
  auto ofProcess = openPipe(pathOf(pipeName), O_RDWR);
  if (!ofProcess) return ofProcess;
  // The other half is for the processes of further jobs, which matter more.
  if (static_cast<std::uint64_t>(ofProcess->get()) >= platform::softDescriptorLimit() / 2)
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "too few descriptors are left"});
  if (const auto added = add(pipeName); !added) return std::unexpected(added.error());
  return ofProcess;
}

Result<UniqueFd> OutputReader::open(const std::string& name) {
  const std::lock_guard lock(mutex_);
  if (auto started = startIfStopped(); !started) return std::unexpected(started.error());
  if (!hasRoomFor(name))
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0, name + ": too many pipes of earlier starts are open"});
  const auto pipeName = makePipe(name);
  if (!pipeName) return std::unexpected(pipeName.error());
  auto ofProcess = openBothEnds(*pipeName);
  if (!ofProcess) ::unlink(pathOf(*pipeName).c_str());
  return ofProcess;
}

Result<void> OutputReader::takeOver() {
  const auto names = platform::namesInFolder(folder_, kMaximumNames);
  if (!names) return std::unexpected(names.error());
  halt();
  std::optional<Error> failed;
  for (const std::string& name : *names) {
    if (streams_.contains(name)) continue;
    const auto added = add(name);
    if (!added) {
      // Another kind of file is no output of a service.
      const bool isOther =
          added.error().code == ErrorCode::kDenied || added.error().osError == ELOOP;
      if (!isOther) failed = added.error();
    } else if (readOnce(**added) == Found::kNoWriter) {
      remove(**added);
    }
  }
  if (auto started = start(); !started || !failed) return started;
  return std::unexpected(*std::move(failed));
}

Result<void> OutputReader::start() {
  const std::lock_guard lock(mutex_);
  return streams_.empty() ? Result<void>() : startIfStopped();
}

Result<void> OutputReader::startIfStopped() {
  if (thread_.joinable()) return {};
  isStopping_ = false;
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  Result<void> started;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error& error) {
    started = std::unexpected(
        Error{ErrorCode::kExhausted, error.code().value(), "a thread for the output of services"});
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return started;
}

void OutputReader::halt() {
  if (!thread_.joinable()) return;
  isStopping_ = true;
  const std::uint64_t one = 1;
  static_cast<void>(!::write(wake_.get(), &one, sizeof one));
  thread_.join();
  thread_ = std::thread();
  std::uint64_t count = 0;
  static_cast<void>(!::read(wake_.get(), &count, sizeof count));
}

void OutputReader::stop() {
  halt();
  std::vector<Stream*> unused;
  for (const auto& [name, stream] : streams_) {
    readOnce(*stream);
    if (hasNoWriter(stream->pipe)) unused.push_back(stream.get());
    stream->lines.end();
  }
  for (Stream* const stream : unused) remove(*stream);
}

void OutputReader::run() {
  ::pthread_setname_np(::pthread_self(), "output");
  std::array<epoll_event, 64> events;
  while (!isStopping_) {
    const int timeOut = unfinished_.empty() ? -1 : kTickMilliseconds;
    const int count =
        ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), timeOut);
    for (int i = 0; i < count && !isStopping_; ++i) {
      auto* const stream = static_cast<Stream*>(events[static_cast<std::size_t>(i)].data.ptr);
      if (!stream) continue;
      if (readOnce(*stream) == Found::kNoWriter) removeIfUnused(*stream);
    }
    tickUnfinished();
  }
}

OutputReader::Found OutputReader::readOnce(Stream& stream) {
  std::array<char, kReadBytes> bytes;
  const ssize_t count =
      retryOnInterrupt([&] { return ::read(stream.pipe.get(), bytes.data(), bytes.size()); });
  if (count == 0) return Found::kNoWriter;
  if (count < 0) return Found::kNothing;
  stream.lines.add({bytes.data(), static_cast<std::size_t>(count)}, now_());
  if (stream.lines.isUnfinished()) unfinished_.insert(&stream);
  return Found::kBytes;
}

void OutputReader::removeIfUnused(Stream& stream) {
  const std::lock_guard lock(mutex_);
  // Root may have opened the pipe by its name meanwhile.
  if (hasNoWriter(stream.pipe)) remove(stream);
}

void OutputReader::remove(Stream& stream) {
  // close() does not do this while a child that has not executed its program yet has a copy.
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, stream.pipe.get(), nullptr);
  stream.lines.end();
  unfinished_.erase(&stream);
  ::unlink(pathOf(stream.pipeName).c_str());
  streams_.erase(std::string(stream.pipeName));
}

void OutputReader::tickUnfinished() {
  for (auto each = unfinished_.begin(); each != unfinished_.end();) {
    (*each)->lines.tick(now_());
    each = (*each)->lines.isUnfinished() ? std::next(each) : unfinished_.erase(each);
  }
}

}  // namespace jobhost
