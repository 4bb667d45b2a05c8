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

// What a job host must know of its jobs should it be killed: an append-only file of this boot,
// replaced at once by a shorter one when it has grown.
//
// A record is written by one write() before what it tells of is answered or executed, a start by
// the started process itself. SIGKILL does not tear a write, so each record is in the file or not.
// A full disk can: then the part is cut off again, and what it was to tell of does not happen. A
// host killed before that leaves a torn tail, of which the same is true: it belongs to something
// that was neither answered nor executed. Such a file is set aside, and what stands before the torn
// record is taken over. A file with anything else amiss is set aside and not believed at all: from
// another boot, somebody else's, one that others could write, a symbolic link, no regular file, one
// without a beginning, or with a record that does not check.
//
// Nothing waits for the disk: what a power failure would lose is of no use in the next boot.
class StateFile {
 public:
  // How long open() waits for another host's end.
  static constexpr platform::Duration kLockPatience = std::chrono::seconds(5);
  // The most that the file may hold; a record beyond that is refused.
  static constexpr std::size_t kMaximumBytes = std::size_t{16} << 20;
  // The most that all known jobs together may cost, each what costOf() says. With this a
  // compacted file always has room for what happens to these jobs: only a submission is ever
  // refused for want of room. The labels that were dismissed are not counted: those of one folder
  // of daemons take 1.1 MiB at most.
  static constexpr std::size_t kMaximumCost = std::size_t{12} << 20;
  // A file with less room than this wants compaction: more than any job's submission and start.
  static constexpr std::size_t kRoomBytes = std::size_t{2} << 20;

  struct Opened {
    std::unique_ptr<StateFile> file;
    std::vector<StoredJob> jobs;  // in the order in which they came
    Labels dismissed;
    std::vector<std::string> warnings;  // what was set aside, and why; for the log
  };

  // The state file in `folder` and what it holds. Where none is in order nothing can be appended
  // until compact() has put a new one in its place; each append then says why that failed. One with
  // a torn record is set aside by a second name, and goes on under its own, by compact() or mend().
  // `bootId` names the boot that goes on.
  //
  // No other host can open it meanwhile: one that still runs is waited for, by `loop`, as are the
  // processes that a killed one had started and that have not executed their programs yet. Fails
  // with kDenied when that takes too long.
  static platform::Result<Opened> open(const std::string& folder, std::string_view bootId,
                                       platform::RunLoop& loop);

  // Whether records can be appended.
  bool isWritable() const { return static_cast<bool>(file_); }

  // Replaces the file by one that holds these. The old one stays where that fails.
  platform::Result<void> compact(std::span<const StoredJob> jobs, const Labels& dismissed = {});
  // Whether there is no file, or one that holds much that is out of date or has little room left.
  bool wantsCompaction() const;

  // Cuts a torn record off where there is one, which takes no room on the disk. Each append does so
  // first: a record behind a torn one would make the whole file worthless.
  platform::Result<void> mend();

  // The most that a compacted file holds of a job whose submission takes `submissionBytes`.
  static std::size_t costOf(std::string_view label, std::size_t submissionBytes);

  // Each appends one record, or fails and leaves the file as it was.

  // The bytes that it takes; kExhausted where the job would cost more than `mostCost`.
  platform::Result<std::size_t> appendSubmitted(JobOrigin origin, const platform::Value& dictionary,
                                                std::size_t mostCost = kMaximumCost);
  platform::Result<void> appendEnded(std::string_view label, const Ending& ending);
  platform::Result<void> appendRemoving(std::string_view label);
  platform::Result<void> appendRemoved(std::string_view label);
  // In the place of appendRemoving(), for a job whose file is not to be loaded again in this boot.
  platform::Result<void> appendDismissed(std::string_view label);

  // The record of a start at `startedAt`, which the process itself completes and appends.
  // Fails where the file is not as it should be and can't be mended, and where it has no room.
  platform::Result<std::vector<std::uint8_t>> makeStartRecord(std::string_view label,
                                                              platform::Instant startedAt);
  StartTicket ticketFor(std::span<std::uint8_t> record) const { return {file_.get(), record}; }
  // The process has appended it: what it says.
  StartFields countStart(std::span<const std::uint8_t> record);

  // Undoes what was appended since mark(), also by a process that then failed to start.
  std::size_t mark() const { return size_; }
  platform::Result<void> cutBackTo(std::size_t mark);

 private:
  StateFile() = default;

  platform::Result<void> replaceBy(std::span<const StoredJob> jobs, const Labels& dismissed);
  platform::Result<void> append(RecordKind kind, std::span<const std::uint8_t> payload);
  platform::Result<void> appendRecord(std::span<const std::uint8_t> record);
  platform::Result<void> makeReady(std::size_t recordBytes);

  std::string path_;
  std::string bootId_;
  // Shared with each started process until it executes its program, which is how the next host
  // knows that none is on its way.
  platform::UniqueFd lock_;
  platform::UniqueFd file_;
  platform::Error whyNoFile_;  // where there is none
  std::size_t size_ = 0;
  std::size_t compactedSize_ = 0;
  bool isTorn_ = false;        // there is more in the file than `size_`
  bool isNamedTwice_ = false;  // the file is also the one that was set aside
};

}  // namespace jobhost
