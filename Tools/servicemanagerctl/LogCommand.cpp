#include "Tools/servicemanagerctl/LogCommand.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/LogReader.h"
#include "Tools/servicemanagerctl/LogRuns.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/SinceTime.h"

namespace {

using namespace platform;
using Sink = PlatformConfiguration::LogSink;

constexpr std::size_t kLinesBefore = 10;
constexpr Duration kFollowInterval = std::chrono::milliseconds(200);

std::string asJsonLine(const LogEntry& entry) {
  return asJson(entry).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

// Returns the exit status if nothing more can be copied. main() reports output that could not be
// written.
std::optional<int> copyRest(LogReader& reader) {
  for (;;) {
    const auto part = reader.next();
    if (!part) return fail(part.error());
    if (part->empty()) return std::nullopt;
    if (!print(*part)) return EXIT_SUCCESS;
  }
}

// The descriptor becomes readable when something in the folder changes.
Result<UniqueFd> watchFolder(const std::string& folder) {
  UniqueFd notices(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!notices) return std::unexpected(systemError("inotify_init1"));
  if (::inotify_add_watch(notices.get(), folder.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0)
    return std::unexpected(systemError("watching " + folder));
  return notices;
}

void discardNotices(const UniqueFd& notices) {
  std::array<char, 4096> buffer{};
  while (::read(notices.get(), buffer.data(), buffer.size()) > 0) {
  }
}

int follow(const std::string& path, RunLoop& loop) {
  LogReader reader(path);
  // The watch begins before the first read, so that no line is missed in between.
  const auto notices = watchFolder(std::filesystem::path(path).parent_path());
  if (!notices) return fail(notices.error());
  if (const auto skipped = reader.skipToLast(kLinesBefore); !skipped) return fail(skipped.error());
  std::optional<int> ended = copyRest(reader);
  if (ended) return *ended;
  const auto source = loop.watchReadable(notices->get(), Urgency::kOrdinary, [&] {
    discardNotices(*notices);
    ended = copyRest(reader);
    if (ended) loop.stop();
  });
  if (!source) return fail(source.error());
  loop.run();
  return ended.value_or(EXIT_SUCCESS);
}

}  // namespace

LogCommand::LogCommand(CLI::App& app)
    : log_(app.add_subcommand("log", "The log of the product below the platform root")) {
  log_->add_option("label", labels_, "Only the lines about these services, and their output");
  log_->add_flag("-f,--follow", follow_, "The last lines, and then each line as it is written");
  log_->add_option("--since", since_, "Only lines since then: \"10 min ago\", \"14:00\"");
  log_->add_flag("--this-run", thisRun_, "Only lines since the services' last start");
  log_->add_option("--level", level_, "Only lines at least as severe as this: \"warning\"");
  log_->add_flag("--json{lines}", json_, "For programs: an object in each line");
}

bool LogCommand::isWholeFile() const {
  return labels_.empty() && since_.empty() && !thisRun_ && level_.empty() && json_.empty();
}

int LogCommand::run(const PlatformConfiguration& configuration, RunLoop& loop) const {
  if (configuration.logSink == Sink::kJournal)
    return fail(
        "this platform logs to the journal; read it with \"journalctl _COMM=servicemanagerd + "
        "_COMM=jobhost\", and with -f to follow it");
  if (configuration.logSink == Sink::kSyslog)
    return fail(
        "this platform logs to the system log; its daemon decides where that goes, usually "
        "/var/log/daemon.log and /var/log/syslog");
  const std::string path = logFile(configuration.root);
  if (follow_) return follow(path, loop);
  std::error_code error;
  if (!std::filesystem::exists(path, error) && !error)
    return fail(fmt::format("nothing has been logged yet: there is no {}", path));
  LogReader reader(path);
  return copyRest(reader).value_or(EXIT_SUCCESS);
}

int LogCommand::run(const DaemonClient::Environment& environment) const {
  const Answer<int> outcome = show(environment);
  if (outcome) return *outcome;
  fail(outcome.error().text);
  return outcome.error().exitStatus;
}

Answer<LogFilter> LogCommand::filter(const DaemonClient::Environment& environment) const {
  const auto notUnderstood = [](std::string text) {
    return std::unexpected(Refusal{kExitNotUnderstood, std::move(text)});
  };
  LogFilter filter{.labels = labels_};
  if (!json_.empty() && json_ != "lines")
    return notUnderstood("--json: only \"lines\" can follow, an object in each line");
  if (!level_.empty()) {
    const auto level = levelNamed(level_);
    if (!level)
      return notUnderstood("--level: expected error, warning, notice, info, debug or a number");
    filter.level = *level;
  }
  if (!since_.empty()) {
    filter.since = sinceTime(since_, environment.objects.loop.wallTime());
    if (!filter.since)
      return notUnderstood(
          "--since: expected a time like \"10 min ago\", \"14:00\", "
          "\"yesterday\" or \"2026-01-31 14:00\"");
  }
  if (!thisRun_) return filter;
  if (labels_.empty()) return notUnderstood("--this-run: of which service?");
  const auto begin = beginOfRuns(environment, labels_);
  if (!begin) return std::unexpected(begin.error());
  filter.since = filter.since ? std::max(*filter.since, *begin) : *begin;
  return filter;
}

Answer<int> LogCommand::show(const DaemonClient::Environment& environment) const {
  auto wanted = filter(environment);
  if (!wanted) return std::unexpected(wanted.error());
  const PlatformConfiguration& configuration = *environment.configuration;
  if (configuration.logSink == Sink::kSyslog)
    remark("this platform logs to the system log, where its lines must be looked for");
  // The line about a start may be older than what is read.
  if (!labels_.empty() && (wanted->since || wanted->level < ASL_LEVEL_DEBUG))
    wanted->processes = processesOf(environment, labels_);
  LabelLog log(configuration, *wanted);
  // All lines are read: those of the job host tell the processes of the services.
  auto entries = log.read();
  if (!entries) return fail(entries.error());
  if (entries->empty()) {
    if (const auto known = checkLabels(environment, labels_); !known)
      return std::unexpected(known.error());
  }
  if (entries->size() == LabelLog::kMostEntries)
    remark(fmt::format("only the last {} lines are shown; --since selects others",
                       LabelLog::kMostEntries));
  if (follow_ && !wanted->since && entries->size() > kLinesBefore)
    entries->erase(entries->begin(), entries->end() - kLinesBefore);
  if (!printEntries(*entries) || !follow_) return EXIT_SUCCESS;
  return followEntries(log, environment.objects.loop);
}

bool LogCommand::printEntries(const std::vector<LogEntry>& entries) const {
  std::string text;
  for (const LogEntry& entry : entries) text += json_.empty() ? asText(entry) : asJsonLine(entry);
  return text.empty() || print(text);
}

Answer<int> LogCommand::followEntries(LabelLog& log, RunLoop& loop) const {
  int status = EXIT_SUCCESS;
  // The files of services that have printed nothing do not exist yet, so nothing can be watched.
  const auto timer = loop.startTimer(kFollowInterval, RunLoop::Repeat::kEvery, [&] {
    const auto entries = log.readNew();
    if (!entries) status = fail(entries.error());
    if (!entries || !printEntries(*entries)) loop.stop();
  });
  loop.run();
  return status;
}
