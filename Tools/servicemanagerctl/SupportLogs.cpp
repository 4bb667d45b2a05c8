#include "Tools/servicemanagerctl/SupportLogs.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Tools/servicemanagerctl/WithinTime.h"

using namespace platform;

namespace {

using Sink = PlatformConfiguration::LogSink;

// The end of each file, and the number of files: the current one and older ones.
constexpr std::size_t kMaxBytesOfFile = std::size_t{4} * 1024 * 1024;
constexpr int kMaxFiles = 4;
constexpr std::size_t kMaxBytesOfJournal = std::size_t{8} * 1024 * 1024;
constexpr Duration kLogTime = std::chrono::seconds(10);

constexpr char kJournal[] =
    "/usr/bin/journalctl --no-pager --quiet -o short-iso-precise -n 50000 _COMM=servicemanagerd + "
    "_COMM=jobhost 2>&1 </dev/null";

std::string withoutSecretsOfAll(std::string_view log) {
  std::string text;
  text.reserve(log.size());
  while (!log.empty()) {
    const std::string_view line = log.substr(0, log.find('\n'));
    text += withoutSecrets(std::string(line)) + '\n';
    log.remove_prefix(std::min(line.size() + 1, log.size()));
  }
  return text;
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

std::vector<SupportPart> filesOf(const std::string& path) {
  std::vector<SupportPart> parts;
  for (int number = 0; number < kMaxFiles; ++number) {
    const std::string suffix = number == 0 ? "" : fmt::format(".{}", number);
    SupportPart part{.name = "log/system.log" + suffix, .what = "the end of " + path + suffix};
    auto content = endOfFile(path + suffix);
    if (!content && number > 0 && content.error().code == ErrorCode::kNotFound) break;
    if (content)
      part.content = withoutSecretsOfAll(*content);
    else
      part.whyMissing = describe(content.error());
    parts.push_back(std::move(part));
  }
  return parts;
}

std::vector<SupportPart> linesOfJournal() {
  SupportPart part{.name = "log/journal.log", .what = "the product's last lines in the journal"};
  struct Closing {
    void operator()(std::FILE* stream) const { ::pclose(stream); }
  };
  const std::unique_ptr<std::FILE, Closing> output(::popen(kJournal, "re"));
  std::string text;
  std::array<char, 65536> buffer{};
  while (output && text.size() < kMaxBytesOfJournal) {
    const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), output.get());
    if (size == 0) break;
    text.append(buffer.data(), size);
  }
  if (output)
    part.content = withoutSecretsOfAll(text);
  else
    part.whyMissing = "journalctl does not start";
  return {std::move(part)};
}

}  // namespace

std::vector<SupportPart> supportLogs(const PlatformConfiguration& configuration) {
  if (configuration.logSink == Sink::kSyslog)
    return {{.name = "log",
             .what = "the log",
             .whyMissing = "it goes to the system log, usually /var/log/syslog"}};
  PendingResult<std::vector<SupportPart>> pending(
      [isJournal = configuration.logSink == Sink::kJournal, path = logFile(configuration.root)] {
        return isJournal ? linesOfJournal() : filesOf(path);
      });
  if (auto parts = pending.by(monotonicTime() + kLogTime)) return *std::move(parts);
  return {{.name = "log", .what = "the log", .whyMissing = "reading it takes too long"}};
}
