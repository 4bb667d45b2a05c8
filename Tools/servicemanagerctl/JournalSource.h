#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tools/servicemanagerctl/LabelLog.h"

// Runs journalctl, and gives the lines that it prints. The destructor ends it.
class JournalReader {
 public:
  // `arguments` without the program's name.
  static platform::Result<std::unique_ptr<JournalReader>> start(std::vector<std::string> arguments);
  JournalReader(const JournalReader&) = delete;
  JournalReader& operator=(const JournalReader&) = delete;
  ~JournalReader();

  // The whole lines that can be read; with `waits`, until the program has ended or a part is large
  // enough. Fails if it could not read the journal.
  platform::Result<std::vector<std::string>> lines(bool waits);

  // Whether there are no more lines, and whether the program had nothing to complain of then.
  bool hasEnded() const { return process_ < 0; }
  bool hasSucceeded() const { return hasSucceeded_; }

 private:
  JournalReader(platform::UniqueFd output, int process)
      : output_(std::move(output)), process_(process) {}
  // Notes how the program has ended, which has printed these lines last.
  platform::Result<std::vector<std::string>> conclude(std::vector<std::string> lines);

  platform::UniqueFd output_;
  int process_;
  bool hasSucceeded_ = false;
  std::string rest_;
};

// The lines of the journal. It has more than a program can keep, so journalctl selects them.
class JournalSource final : public LogSource {
 public:
  // `hasLog` says whether the lines of the service manager and the job host are there, too. `owner`
  // is their user.
  JournalSource(std::vector<std::string> labels, bool hasLog, std::int64_t owner)
      : labels_(std::move(labels)), hasLog_(hasLog), owner_(owner) {}

  platform::Result<std::vector<LogEntry>> read(LogFilter& filter, std::size_t most) override;
  platform::Result<std::vector<LogEntry>> readNew(LogFilter& filter) override;

 private:
  platform::Result<void> learnProcesses(LogFilter& filter) const;
  platform::Result<void> startFollower(const LogFilter& filter);
  std::vector<LogEntry> entriesIn(const std::vector<std::string>& lines, LogFilter& filter) const;

  const std::vector<std::string> labels_;
  const bool hasLog_;
  const std::int64_t owner_;
  std::string cursor_;
  std::unique_ptr<JournalReader> follower_;
  bool hasFollowed_ = false;  // since its start, it has given a line
};

// The arguments of journalctl for these lines. Its options hold for the lines of the job host, too.
std::vector<std::string> journalArguments(const std::vector<std::string>& labels, bool hasLog,
                                          const LogFilter& filter);
