#include "Tools/servicemanagerctl/JournalSource.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <deque>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

using namespace platform;

namespace {

constexpr char kJournalctl[] = "journalctl";
// Only a label's own lines count, so more lines are read than shown.
constexpr std::size_t kReadForShown = 500;
constexpr std::size_t kLargestPartOfJournal = std::size_t{16} << 20;
constexpr std::size_t kLongestJournalLine = std::size_t{4} << 20;

std::string cursorIn(const std::string& line) {
  constexpr std::string_view kCursor = "\"__CURSOR\":\"";
  const std::size_t at = line.find(kCursor);
  if (at == line.npos) return {};
  const std::size_t begin = at + kCursor.size();
  return line.substr(begin, line.find('"', begin) - begin);
}

std::vector<std::string> argumentsOfAllLines() {
  return {"-o",
          "json",
          "-q",
          "--no-pager",
          "--all",
          "--output-fields=MESSAGE,PRIORITY,SYSLOG_IDENTIFIER,_PID,_TRANSPORT,VANTOR_LABEL,_UID,"
          "_COMM,_SYSTEMD_UNIT"};
}

}  // namespace

Result<std::unique_ptr<JournalReader>> JournalReader::start(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), kJournalctl);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::unexpected(systemError("a pipe"));
  UniqueFd output(ends[0]);
  const UniqueFd ofChild(ends[1]);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ofChild.get(), STDOUT_FILENO);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  // This program ignores SIGPIPE; journalctl must end when nobody reads any more.
  sigset_t defaults;
  ::sigemptyset(&defaults);
  ::sigaddset(&defaults, SIGPIPE);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t process = -1;
  const int error =
      ::posix_spawnp(&process, kJournalctl, &actions, &attributes, pointers.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    return std::unexpected(Error{error == ENOENT ? ErrorCode::kNotFound : ErrorCode::kSystem, error,
                                 "journalctl, which reads the journal"});
  }
  return std::unique_ptr<JournalReader>(new JournalReader(std::move(output), process));
}

JournalReader::~JournalReader() {
  if (process_ < 0) return;
  ::kill(process_, SIGTERM);
  retryOnInterrupt([&] { return ::waitpid(process_, nullptr, 0); });
}

Result<std::vector<std::string>> JournalReader::lines(bool waits) {
  if (process_ < 0) return std::vector<std::string>();
  std::array<char, 65536> bytes;
  ::fcntl(output_.get(), F_SETFL, waits ? 0 : O_NONBLOCK);
  std::vector<std::string> lines;
  for (std::size_t size = 0; size < kLargestPartOfJournal;) {
    const ssize_t count =
        retryOnInterrupt([&] { return ::read(output_.get(), bytes.data(), bytes.size()); });
    if (count < 0 && errno == EAGAIN) return lines;
    if (count < 0) return std::unexpected(systemError("reading from journalctl"));
    if (count == 0) return conclude(std::move(lines));
    size += static_cast<std::size_t>(count);
    rest_.append(bytes.data(), static_cast<std::size_t>(count));
    std::size_t begin = 0;
    for (std::size_t end; (end = rest_.find('\n', begin)) != rest_.npos; begin = end + 1)
      lines.push_back(rest_.substr(begin, end - begin));
    rest_.erase(0, begin);
    if (rest_.size() > kLongestJournalLine) rest_.clear();
    if (lines.size() >= LabelLog::kMostEntries) return lines;
  }
  return lines;
}

Result<std::vector<std::string>> JournalReader::conclude(std::vector<std::string> lines) {
  int status = 0;
  retryOnInterrupt([&] { return ::waitpid(process_, &status, 0); });
  process_ = -1;
  hasSucceeded_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  // It has said why on its standard error. Without an entry its status is 1, too.
  if (!WIFEXITED(status) || WEXITSTATUS(status) > 1)
    return std::unexpected(Error{ErrorCode::kSystem, 0, "journalctl failed"});
  return lines;
}

std::vector<std::string> journalArguments(const std::vector<std::string>& labels, bool hasLog,
                                          const LogFilter& filter) {
  std::vector<std::string> arguments = argumentsOfAllLines();
  if (filter.level < 7) arguments.push_back(fmt::format("--priority={}", filter.level));
  if (filter.since) {
    const auto since = std::chrono::floor<std::chrono::seconds>(*filter.since);
    arguments.push_back(fmt::format("--since=@{}", since.time_since_epoch().count()));
  }
  if (hasLog) {
    // The last ones are the services' own lines.
    for (const char* const match :
         {"_COMM=servicemanagerd", "+", "_COMM=jobhost", "+", "VANTOR_FACILITY=user", "+"})
      arguments.emplace_back(match);
  }
  arguments.emplace_back("_TRANSPORT=stdout");
  for (const std::string& label : labels) arguments.push_back("SYSLOG_IDENTIFIER=" + label);
  return arguments;
}

std::vector<LogEntry> JournalSource::entriesIn(const std::vector<std::string>& lines,
                                               LogFilter& filter) const {
  std::vector<LogEntry> entries;
  for (const std::string& line : lines) {
    auto entry = entryInJournal(line, labels_, owner_);
    if (entry) entries.push_back(*std::move(entry));
  }
  for (const LogEntry& entry : entries) filter.learn(entry);
  std::erase_if(entries, [&](const LogEntry& entry) { return !filter.takes(entry); });
  return entries;
}

// The lines that tell a service's processes may be older or less severe than those that are wanted.
Result<void> JournalSource::learnProcesses(LogFilter& filter) const {
  auto arguments = argumentsOfAllLines();
  arguments.insert(arguments.end(), {"_COMM=jobhost", fmt::format("_UID={}", owner_)});
  const auto reader = JournalReader::start(std::move(arguments));
  if (!reader) return std::unexpected(reader.error());
  while (!(*reader)->hasEnded()) {
    const auto lines = (*reader)->lines(/*waits=*/true);
    if (!lines) return std::unexpected(lines.error());
    entriesIn(*lines, filter);
  }
  return {};
}

Result<std::vector<LogEntry>> JournalSource::read(LogFilter& filter, std::size_t most) {
  if (hasLog_ && (filter.since || filter.level < 7)) {
    if (const auto learned = learnProcesses(filter); !learned)
      return std::unexpected(learned.error());
  }
  auto arguments = journalArguments(labels_, hasLog_, filter);
  if (most < LabelLog::kMostEntries)
    arguments.insert(arguments.begin(), fmt::format("--lines={}", most * kReadForShown));
  const auto reader = JournalReader::start(std::move(arguments));
  if (!reader) return std::unexpected(reader.error());
  std::deque<LogEntry> entries;
  for (;;) {
    const auto lines = (*reader)->lines(/*waits=*/true);
    if (!lines) return std::unexpected(lines.error());
    for (LogEntry& entry : entriesIn(*lines, filter)) {
      entries.push_back(std::move(entry));
      if (entries.size() > most) entries.pop_front();
    }
    if (!lines->empty()) cursor_ = cursorIn(lines->back());
    if ((*reader)->hasEnded()) break;
  }
  return std::vector<LogEntry>(std::move_iterator(entries.begin()),
                               std::move_iterator(entries.end()));
}

Result<void> JournalSource::startFollower(const LogFilter& filter) {
  LogFilter later{.labels = filter.labels};
  auto arguments = journalArguments(labels_, hasLog_, later);
  arguments.insert(arguments.begin(), {"--follow", cursor_.empty() ? std::string("--lines=0")
                                                                   : "--after-cursor=" + cursor_});
  auto started = JournalReader::start(std::move(arguments));
  if (!started) return std::unexpected(std::move(started.error()));
  follower_ = *std::move(started);
  hasFollowed_ = false;
  return {};
}

Result<std::vector<LogEntry>> JournalSource::readNew(LogFilter& filter) {
  if (follower_ && follower_->hasEnded()) {
    if (!hasFollowed_)
      return std::unexpected(Error{ErrorCode::kSystem, 0, "journalctl no longer follows"});
    follower_.reset();
  }
  if (!follower_) {
    if (const auto started = startFollower(filter); !started)
      return std::unexpected(started.error());
  }
  const auto lines = follower_->lines(/*waits=*/false);
  if (!lines) return std::unexpected(lines.error());
  if (!lines->empty()) {
    cursor_ = cursorIn(lines->back());
    hasFollowed_ = true;
  }
  return entriesIn(*lines, filter);
}
