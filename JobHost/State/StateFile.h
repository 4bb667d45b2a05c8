#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "JobHost/State/StartTicket.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The file that tells the next host about the jobs if this one is killed. It is append-only, of one
// boot, and atomically replaced by a shorter one when it has grown.
//
// A record is written by one write() before its operation is answered or executed. The started
// process itself writes the record of a start. SIGKILL does not tear a write, so each record is in
// the file or not. A full disk can tear one. Then the partial record is cut off and its operation
// does not happen. If the host is killed before it cuts the record off, the torn tail still belongs
// to an operation that was neither answered nor executed.
//
// A file with a torn tail is set aside, and the records before it are taken over. A file with any
// other fault is set aside and not trusted at all: it is from another boot, belongs to another
// user, can be written by others, is a symbolic link or no regular file, has no header, or has a
// record with a wrong check.
//
// Nothing calls fsync(): the next boot could not use what a power failure would lose.
class StateFile {
 public:
  // How long open() waits for another host to end.
  static constexpr platform::Duration kLockTimeOut = std::chrono::seconds(5);
  // The maximum size of the file. A record beyond it is rejected.
  static constexpr std::size_t kMaximumBytes = std::size_t{16} << 20;
  // The maximum cost of all known jobs, each as costOf() says. With this bound, a compacted file
  // always has room for the records of these jobs: only a submission is ever rejected for lack of
  // space. The labels removed by clients are not counted: those of one folder of daemons take 1.1
  // MiB at most.
  static constexpr std::size_t kMaximumCost = std::size_t{12} << 20;
  // A file with less space left than this is compacted. It is more than any job's submission and
  // start take.
  static constexpr std::size_t kRoomBytes = std::size_t{2} << 20;

  struct Opened {
    std::unique_ptr<StateFile> file;
    std::vector<StoredJob> jobs;  // in the order of their submission
    Labels removedByClient;
    std::vector<std::string> warnings;  // for the log: which file was set aside, and why
  };

  // Opens the state file in `folder` and reads it. If there is no valid one, nothing can be
  // appended until compact() has written a new one, and each append fails with the reason. A file
  // with a torn record gets a second name as the one set aside, and goes on under its own name
  // after compact() or repair(). `bootId` is that of the current boot.
  //
  // Takes a lock, so that no other host can open it. Waits, by `loop`, for another host to end, and
  // for processes that a killed host had started and that have not executed their programs yet.
  // Fails with kDenied when that takes too long.
  static platform::Result<Opened> open(const std::string& folder, std::string_view bootId,
                                       platform::RunLoop& loop);

  // Whether records can be appended.
  bool isWritable() const { return static_cast<bool>(file_); }

  // Replaces the file by one with these contents. If that fails, the old file stays.
  platform::Result<void> compact(std::span<const StoredJob> jobs,
                                 const Labels& removedByClient = {});
  // Whether there is no file, or one with many outdated records or little space left.
  bool wantsCompaction() const;

  // Cuts off a torn record, which takes no space on the disk. Each append does so first: a record
  // after a torn one would make the whole file invalid.
  platform::Result<void> repair();

  // The maximum size of a job in a compacted file, if its submission takes `submissionBytes`.
  static std::size_t costOf(std::string_view label, std::size_t submissionBytes);

  // Each of the following appends one record, or fails and leaves the file as it was.

  // Returns the record's size. kExhausted if the job would cost more than `mostCost`.
  platform::Result<std::size_t> appendSubmitted(JobOrigin origin, const platform::Value& dictionary,
                                                std::size_t mostCost = kMaximumCost);
  platform::Result<void> appendEnded(std::string_view label, const Ending& ending);
  platform::Result<void> appendRemoving(std::string_view label);
  platform::Result<void> appendRemoved(std::string_view label);
  // Instead of appendRemoving(), for a job whose file is not to be loaded again in this boot.
  platform::Result<void> appendRemovedByClient(std::string_view label);

  // Makes the record of a start at `startedAt`, which the process itself completes and appends.
  // Fails if the file is torn and can't be repaired, and if it has no space left.
  platform::Result<std::vector<std::uint8_t>> makeStartRecord(std::string_view label,
                                                              platform::Instant startedAt);
  StartTicket ticketFor(std::span<std::uint8_t> record) const { return {file_.get(), record}; }
  // Accounts for the record, which the process has appended, and returns its fields.
  StartFields countStart(std::span<const std::uint8_t> record);

  // Removes all records since mark(), also those of a process that then failed to start.
  std::size_t mark() const { return size_; }
  platform::Result<void> cutBackTo(std::size_t mark);

 private:
  StateFile() = default;

  platform::Result<void> replaceBy(std::span<const StoredJob> jobs, const Labels& removedByClient);
  platform::Result<void> append(RecordKind kind, std::span<const std::uint8_t> payload);
  platform::Result<void> appendRecord(std::span<const std::uint8_t> record);
  platform::Result<void> makeReady(std::size_t recordBytes);

  std::string path_;
  std::string bootId_;
  // Each started process shares it until it executes its program, so the next host can wait for
  // such processes.
  platform::UniqueFd lock_;
  platform::UniqueFd file_;
  platform::Error whyNoFile_;  // while there is none
  std::size_t size_ = 0;
  std::size_t compactedSize_ = 0;
  bool isTorn_ = false;        // the file is longer than `size_`
  bool isNamedTwice_ = false;  // the name of the file set aside is a link to this file
};

}  // namespace jobhost
