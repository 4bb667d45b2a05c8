#include "Tools/servicemanagerctl/SupportLogs.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Tools/servicemanagerctl/JournalSource.h"
#include "Tools/servicemanagerctl/LogEntry.h"
#include "Tools/servicemanagerctl/WithinTime.h"

using namespace platform;

namespace {

using Sink = PlatformConfiguration::LogSink;

// The end of each file, and the number of files: the current one and older ones.
constexpr std::size_t kMaxBytesOfFile = std::size_t{4} * 1024 * 1024;
constexpr int kMaxFiles = 4;
constexpr int kMaxLinesOfJournal = 50'000;
constexpr std::size_t kMaxBytesOfJournal = std::size_t{8} * 1024 * 1024;
constexpr Duration kLogTime = std::chrono::seconds(10);

constexpr std::string_view kOwnPrograms[] = {"servicemanagerd", "jobhost", "jobstart", "kextunload",
                                             "servicemanagerctl"};

// Removes the text up to `end` and `end` itself from `rest`, and returns the text.
std::string_view textUpTo(std::string_view end, std::string_view& rest) {
  const std::size_t size = std::min(rest.find(end), rest.size());
  const std::string_view text = rest.substr(0, size);
  rest.remove_prefix(std::min(size + end.size(), rest.size()));
  return text;
}

// The line is "TIME HOST IDENT[PROCESS] (FACILITY) <LEVEL> MESSAGE" (FileLogSink.h). The default
// facility of any program is "user", with the program's name.
bool isOwnLine(std::string_view line) {
  textUpTo(" ", line);
  textUpTo(" ", line);
  const std::string_view ident = textUpTo("[", line);
  textUpTo("] (", line);
  const std::string_view facility = textUpTo(") <", line);
  if (facility.starts_with("com.vantor.")) return true;
  return facility == "user" && std::ranges::find(kOwnPrograms, ident) != std::end(kOwnPrograms);
}

// Leaves the last whole lines, of so many bytes at most.
void keepEnd(std::string& text, std::size_t bytes) {
  if (text.size() <= bytes) return;
  const std::size_t lineEnd = text.find('\n', text.size() - bytes - 1);
  text.erase(0, std::min(lineEnd, text.size() - 1) + 1);
}

Result<std::string> endOfFile(const std::string& path) {
  const auto file = openRegularFile(path);
  if (!file) return std::unexpected(file.error());
  const auto size = static_cast<std::size_t>(file->status.st_size);
  const std::size_t skipped = size > kMaxBytesOfFile ? size - kMaxBytesOfFile : 0;
  ::lseek(file->get(), static_cast<off_t>(skipped), SEEK_SET);
  auto content = readAtMost(file->get(), kMaxBytesOfFile, path);
  // The first line is incomplete.
  if (content && skipped > 0) content->erase(0, std::min(content->find('\n'), content->size()));
  return content;
}

// The user of the job host, whose folder this is. The service manager runs under the same one.
uid_t ownerOfHost(const std::string& root) {
  struct stat status{};
  return ::lstat(pathBelowRoot(root, "run/vantor").c_str(), &status) == 0 ? status.st_uid : 0;
}

// The lines that the two have sent to the journal themselves. A service whose output goes there
// writes to a connection of the job host's.
std::vector<std::string> ownLinesInJournal(uid_t user) {
  std::vector<std::string> arguments{"-o",
                                     "json",
                                     "-q",
                                     "--no-pager",
                                     "--all",
                                     "--output-fields=MESSAGE,PRIORITY,SYSLOG_IDENTIFIER,_PID",
                                     fmt::format("--lines={}", kMaxLinesOfJournal)};
  for (const char* const program : {"servicemanagerd", "jobhost"}) {
    if (arguments.back().starts_with("_")) arguments.emplace_back("+");
    arguments.push_back(fmt::format("_COMM={}", program));
    arguments.push_back(fmt::format("_UID={}", user));
    arguments.emplace_back("_TRANSPORT=journal");
  }
  return arguments;
}

// The lines, or why there are none.
Result<std::string> readJournal(const std::string& root) {
  const auto reader = JournalReader::start(ownLinesInJournal(ownerOfHost(root)));
  if (!reader) return std::unexpected(reader.error());
  std::string text;
  while (!(*reader)->hasEnded()) {
    const auto lines = (*reader)->lines(/*waits=*/true);
    if (!lines) return std::unexpected(lines.error());
    for (const std::string& line : *lines) text += supportLineOf(line).value_or("");
    keepEnd(text, kMaxBytesOfJournal);
  }
  if (text.empty())
    return std::unexpected(
        Error{ErrorCode::kNotFound, 0, "it has none of the product that this user may read"});
  if (!(*reader)->hasSucceeded())
    return std::unexpected(Error{ErrorCode::kSystem, 0, "journalctl failed"});
  return text;
}

}  // namespace

std::string ownLinesOf(std::string_view log) {
  std::string text;
  text.reserve(log.size());
  while (!log.empty()) {
    const std::string_view line = textUpTo("\n", log);
    if (isOwnLine(line)) text += withoutSecrets(std::string(line)) + '\n';
  }
  return text;
}

// A secret may go over several lines of a message.
std::optional<std::string> supportLineOf(const std::string& journalLine) {
  // The query has left out other users' lines, and the text does not tell whether one is trusted.
  auto entry = entryInJournal(journalLine, {}, 0);
  if (!entry) return std::nullopt;
  entry->message = withoutSecrets(std::move(entry->message));
  return asText(*entry);
}

std::vector<SupportPart> supportLogFiles(const std::string& path) {
  std::vector<SupportPart> parts;
  for (int number = 0; number < kMaxFiles; ++number) {
    const std::string suffix = number == 0 ? "" : fmt::format(".{}", number);
    SupportPart part{.name = "log/system.log" + suffix, .what = "the end of " + path + suffix};
    auto content = endOfFile(path + suffix);
    if (!content && number > 0 && content.error().code == ErrorCode::kNotFound) break;
    if (content)
      part.content = ownLinesOf(*content);
    else
      part.whyMissing = describe(content.error());
    parts.push_back(std::move(part));
  }
  return parts;
}

SupportPart supportJournal(const std::string& root) {
  SupportPart part{.name = "log/journal.log", .what = "the product's last lines in the journal"};
  auto text = readJournal(root);
  if (text)
    part.content = *std::move(text);
  else
    part.whyMissing = describe(text.error());
  return part;
}

std::vector<SupportPart> supportLogs(const PlatformConfiguration& configuration) {
  if (configuration.logSink == Sink::kSyslog)
    return {{.name = "log",
             .what = "the log",
             .whyMissing = "it goes to the system log, usually /var/log/syslog"}};
  PendingResult<std::vector<SupportPart>> pending(
      [isJournal = configuration.logSink == Sink::kJournal, root = configuration.root] {
        return isJournal ? std::vector{supportJournal(root)} : supportLogFiles(logFile(root));
      });
  if (auto parts = pending.by(monotonicTime() + kLogTime)) return *std::move(parts);
  const char* const why = pending.hasBegun() ? "reading it takes too long"
                                             : "this system has no thread left to read it";
  return {{.name = "log", .what = "the log", .whyMissing = why}};
}
