#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "JobHost/State/StartTicket.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The place of each job's last submission in the file, if this host has written it, by the hash of
// its label: with 10,000 jobs, the labels themselves would take a megabyte. The reader of a place
// compares the label, because a record that was cut off since leaves a wrong place, and so does
// another job with the same hash.
using PlacesOfSubmissions = std::unordered_map<std::uint32_t, std::uint32_t>;

// The file that tells the next host about the jobs if this one is killed. It is append-only, of one
// boot, and atomically replaced by a shorter one when it has grown.
//
// A record is written by one write() before its operation is answered or executed. The started
// process itself writes the record of a start. A full disk can tear a record, and so can SIGKILL.
// Each record says which boot it belongs to and carries a check, so damage costs no other record.
// A file with damage is set aside, and its sound records are taken over.
//
// A file is set aside and not read if it belongs to another user, can be written by others, is a
// symbolic link or no regular file, or is from another boot or pid namespace.
//
// If a record can't be written, the file is behind: it takes no further record until compact() has
// replaced it. So what it says was true at one time. Only a removal is noted nonetheless: the job's
// submission gets another kind in place, which takes no space on most file systems.
//
// Nothing calls fsync(): the next boot could not use what a power failure would lose.
class StateFile {
 public:
  // How long open() waits for another host to end.
  static constexpr platform::Duration kLockTimeOut = std::chrono::seconds(5);
  // The maximum size of the file. A record beyond it is rejected.
  static constexpr std::size_t kMaximumBytes = std::size_t{32} << 20;
  // The maximum cost of all known jobs, each as costOf() says. With this bound, a compacted file
  // always has room for the records of these jobs: only a submission is ever rejected for lack of
  // space. The labels removed by clients are not counted: those of one folder of daemons take 1.1
  // MiB at most.
  static constexpr std::size_t kMaximumCost = std::size_t{24} << 20;
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
  // with damage gets a second name as the one set aside, and goes on under its own name
  // after compact() or repair(). `bootId` is that of the current boot.
  //
  // Takes a lock, so that no other host can open it. Waits, by `loop`, for another host to end, and
  // for processes that a killed host had started and that have not executed their programs yet.
  // Fails with kDenied when that takes too long.
  static platform::Result<Opened> open(const std::string& folder, std::string_view bootId,
                                       platform::RunLoop& loop);

  // Whether there is a file. It may be behind.
  bool isWritable() const { return static_cast<bool>(file_); }
  bool isBehind() const { return isBehind_; }
  const platform::Error& whyBehind() const { return whyNoFile_; }

  // Replaces the file by one with these contents. If that fails, the old file stays.
  platform::Result<void> compact(std::span<const StoredJob> jobs,
                                 const Labels& removedByClient = {});
  // Removes the file, for which a full disk has room. The next host finds nothing.
  void discard();
  // Whether there is no file, or one that is behind, has many outdated records or little space
  // left.
  bool wantsCompaction() const;

  // Cuts off a torn record, which takes no space on the disk. Each append does so first.
  platform::Result<void> repair();

  // The maximum size of a job in a compacted file, if its submission takes `submissionBytes`.
  static std::size_t costOf(std::string_view label, std::size_t submissionBytes);

  // Each of the following appends one record, or fails and leaves the file as it was. After a
  // failure of any but a submission the file is behind.

  // Returns the record's size. kExhausted if the job would cost more than `mostCost`.
  platform::Result<std::size_t> appendSubmitted(JobOrigin origin, const platform::Value& dictionary,
                                                std::size_t mostCost = kMaximumCost);
  platform::Result<void> appendEnded(std::string_view label, const Ending& ending);
  platform::Result<void> appendRemoving(std::string_view label);
  platform::Result<void> appendRemoved(std::string_view label);
  // Instead of appendRemoving(), for a job whose file is not to be loaded again in this boot.
  platform::Result<void> appendRemovedByClient(std::string_view label);

  // Makes the record of a start at `startedAt`, which the process itself completes and appends.
  std::vector<std::uint8_t> makeStartRecord(std::string_view label, platform::Instant startedAt,
                                            bool abandonsGroup = false);
  // Without a file if the record can't be appended. `writeError` outlives the start.
  StartTicket ticketFor(std::span<std::uint8_t> record, int* writeError = nullptr);
  // Accounts for the record after its process was started, and returns its fields. `writeError` is
  // that of its ticket.
  StartFields countStart(std::span<const std::uint8_t> record, int writeError = 0);

  // Removes all records since mark(), also those of a process that then failed to start.
  std::size_t mark() const { return size_; }
  platform::Result<void> cutBackTo(std::size_t mark);

 private:
  StateFile() = default;

  platform::Result<void> replaceBy(std::span<const StoredJob> jobs, const Labels& removedByClient);
  platform::Result<void> append(RecordKind kind, std::string_view label);
  // Appends a record of the first kind, or changes the kind of the job's submission to the second.
  platform::Result<void> appendRemoval(RecordKind kind, RecordKind inPlace, std::string_view label);
  platform::Result<void> append(RecordKind kind, std::span<const std::uint8_t> payload);
  platform::Result<void> appendRecord(std::span<const std::uint8_t> record);
  platform::Result<void> makeReady(std::size_t recordBytes);
  void fallBehind(const platform::Error& why);

  std::string path_;
  std::string bootId_;
  std::uint64_t boot_ = 0;  // its mark
  // Each started process shares it until it executes its program, so the next host can wait for
  // such processes.
  platform::UniqueFd lock_;
  platform::UniqueFd file_;
  PlacesOfSubmissions submissions_;
  platform::Error whyNoFile_;  // while there is none, or while it is behind
  std::size_t size_ = 0;
  std::size_t compactedSize_ = 0;
  bool isBehind_ = false;
  bool isTorn_ = false;        // the file is longer than `size_`
  bool isNamedTwice_ = false;  // the name of the file set aside is a link to this file
};

}  // namespace jobhost
