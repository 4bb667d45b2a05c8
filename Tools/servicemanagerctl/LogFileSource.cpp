#include "Tools/servicemanagerctl/LogFileSource.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <deque>
#include <iterator>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"

using namespace platform;

namespace {

constexpr std::size_t kPartOfRotated = 64 * 1024;
// The last lines are looked for in so much of each file.
constexpr off_t kTailBytes = off_t{1} << 20;
constexpr off_t kWholeFile = off_t{1} << 40;
// As many as any log of the platform keeps.
constexpr unsigned kMostRotated = 5;
// A longer line is no line of a log.
constexpr std::size_t kLongestLine = std::size_t{2} << 20;

// Cuts parts of a file into lines, and keeps the last `most` entries that the filter accepts.
class EntryCollector {
 public:
  EntryCollector(const LogFileSource::Parse& parse, LogFilter& filter, std::size_t most)
      : parse_(parse), filter_(filter), most_(most) {}

  void add(std::string& rest, std::string_view part) {
    rest += part;
    std::size_t begin = 0;
    std::vector<LogEntry> entries;
    for (std::size_t end; (end = rest.find('\n', begin)) != rest.npos; begin = end + 1) {
      auto entry = parse_(std::string_view(rest).substr(begin, end - begin));
      if (entry) entries.push_back(*std::move(entry));
    }
    for (const LogEntry& entry : entries) filter_.learn(entry);
    for (LogEntry& entry : entries) addEntry(std::move(entry));
    rest.erase(0, begin);
    if (rest.size() > kLongestLine) rest.clear();
  }

  std::vector<LogEntry> take() {
    return {std::move_iterator(entries_.begin()), std::move_iterator(entries_.end())};
  }

 private:
  void addEntry(LogEntry entry) {
    if (!filter_.takes(entry)) return;
    entries_.push_back(std::move(entry));
    if (entries_.size() > most_) entries_.pop_front();
  }

  const LogFileSource::Parse& parse_;
  LogFilter& filter_;
  const std::size_t most_;
  std::deque<LogEntry> entries_;
};

// The rotated files that may have entries since then, newest first. A rotation meanwhile gives a
// file another number, so a file is known by its inode.
Result<std::vector<RegularFile>> openRotated(const std::string& path, const LogFilter& filter) {
  std::vector<RegularFile> files;
  for (unsigned number = 1; number <= kMostRotated; ++number) {
    auto file = openRegularFile(fmt::format("{}.{}", path, number));
    if (!file && file.error().code == ErrorCode::kNotFound) break;
    if (!file) return std::unexpected(std::move(file.error()));
    const WallTime changed{std::chrono::seconds(file->status.st_mtim.tv_sec + 1)};
    if (filter.since && changed < *filter.since) break;
    const auto isSame = [&](const RegularFile& other) {
      return other.status.st_ino == file->status.st_ino;
    };
    if (std::ranges::none_of(files, isSame)) files.push_back(*std::move(file));
  }
  return files;
}

Result<void> readWhole(const RegularFile& file, EntryCollector& collector,
                       const std::string& path) {
  std::string rest;
  for (;;) {
    const auto part = readAtMost(file.get(), kPartOfRotated, path);
    if (!part) return std::unexpected(part.error());
    if (part->empty()) return {};
    collector.add(rest, *part);
  }
}

Result<void> readCurrent(LogReader& reader, std::string& rest, EntryCollector& collector) {
  for (;;) {
    const auto part = reader.next();
    if (!part) return std::unexpected(part.error());
    if (part->empty()) return {};
    collector.add(rest, *part);
  }
}

}  // namespace

// The current file is opened first: if it is rotated meanwhile, this has it open.
Result<std::vector<LogEntry>> LogFileSource::read(LogFilter& filter, std::size_t most) {
  const bool isTail = most < LabelLog::kMostEntries;
  if (const auto opened = reader_.skipToLastBytes(isTail ? kTailBytes : kWholeFile); !opened)
    return std::unexpected(opened.error());
  const auto rotated = openRotated(path_, filter);
  if (!rotated) return std::unexpected(rotated.error());
  EntryCollector collector(parse_, filter, most);
  for (auto file = rotated->rbegin(); file != rotated->rend(); ++file) {
    if (reader_.isReading(file->status)) continue;
    if (isTail && file->status.st_size > kTailBytes)
      ::lseek(file->get(), file->status.st_size - kTailBytes, SEEK_SET);
    if (const auto done = readWhole(*file, collector, path_); !done)
      return std::unexpected(done.error());
  }
  if (const auto done = readCurrent(reader_, rest_, collector); !done)
    return std::unexpected(done.error());
  return collector.take();
}

Result<std::vector<LogEntry>> LogFileSource::readNew(LogFilter& filter) {
  EntryCollector collector(parse_, filter, LabelLog::kMostEntries);
  if (const auto done = readCurrent(reader_, rest_, collector); !done)
    return std::unexpected(done.error());
  return collector.take();
}
