#include "JobHost/State/StateFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateReader.h"
#include "JobHost/State/SubmissionInPlace.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::retryOnInterrupt;
using platform::systemError;
using platform::UniqueFd;

constexpr char kFileName[] = "/launchd.state";
constexpr char kLockName[] = "/launchd.lock";
constexpr char kNewSuffix[] = ".new";
constexpr char kSetAsideSuffix[] = ".set-aside";
constexpr mode_t kMode = 0600;
// A smaller file is not worth compacting.
constexpr std::size_t kSmallBytes = 256 * 1024;
constexpr std::size_t kMaximumNamedLosses = 20;
constexpr platform::Duration kLockInterval = std::chrono::milliseconds(5);

Result<UniqueFd> takeLock(const std::string& path, platform::RunLoop& loop) {
  UniqueFd lock(retryOnInterrupt([&] {
    return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, kMode);
  }));
  if (!lock) return std::unexpected(systemError("opening " + path));
  const platform::Instant deadline = loop.now() + StateFile::kLockTimeOut;
  while (retryOnInterrupt([&] { return ::flock(lock.get(), LOCK_EX | LOCK_NB); }) != 0) {
    if (errno != EWOULDBLOCK) return std::unexpected(systemError("locking " + path));
    if (loop.now() >= deadline) {
      return std::unexpected(
          Error{ErrorCode::kDenied, 0, path + ": another job host holds it; stop that one first"});
    }
    loop.sleepFor(kLockInterval);
  }
  return lock;
}

// Checks that only this host can have written the file.
Result<void> checkTrust(int file) {
  struct stat status{};
  if (::fstat(file, &status) != 0) return std::unexpected(systemError("fstat"));
  const auto refuse = [](std::string text) {
    return std::unexpected(Error{ErrorCode::kDenied, 0, std::move(text)});
  };
  if (status.st_uid != ::geteuid()) {
    return refuse(fmt::format("it belongs to uid {}, expected uid {}", status.st_uid, ::geteuid()));
  }
  if ((status.st_mode & 07777) != kMode) {
    return refuse(fmt::format("it has mode {:04o}, expected {:04o}", status.st_mode & 07777u,
                              static_cast<unsigned>(kMode)));
  }
  return {};
}

struct Trusted {
  StateContents contents;
  UniqueFd file;  // for reading
};

Result<Trusted> readTrusted(const std::string& path, std::string_view bootId) {
  auto file = platform::openRegularFile(path);
  if (!file) return std::unexpected(file.error());
  if (auto trust = checkTrust(file->get()); !trust) return std::unexpected(trust.error());
  const auto bytes = platform::readToEnd(file->get(), StateFile::kMaximumBytes, path);
  if (!bytes) return std::unexpected(bytes.error());
  auto contents =
      readState({reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()}, bootId);
  if (!contents) return std::unexpected(std::move(contents.error()));
  return Trusted{*std::move(contents), std::move(file->file)};
}

// Opens the same file for appending, by its descriptor: its path may name another one by now.
UniqueFd reopenForAppending(const UniqueFd& file) {
  const std::string path = pathOfDescriptor(file);
  return UniqueFd(
      retryOnInterrupt([&] { return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC); }));
}

// A damaged file gets a second name and keeps its own until it is replaced, so that a host killed
// in between finds it again. Any other file is renamed. Only one file set aside is kept, so that
// they do not fill the disk.
std::string setAside(const std::string& path, bool isInUse, const std::string& why) {
  const std::string aside = path + kSetAsideSuffix;
  ::unlink(aside.c_str());
  const int result =
      isInUse ? ::link(path.c_str(), aside.c_str()) : ::rename(path.c_str(), aside.c_str());
  if (result == 0) return fmt::format("{}: {}; set aside as {}", path, why, aside);
  return fmt::format("{}: {}; it could not be set aside as {}: {}", path, why, aside,
                     platform::describe(systemError("rename")));
}

// Writes all bytes or fails.
Result<void> writeWhole(int file, std::span<const std::uint8_t> bytes, const std::string& what) {
  const ssize_t written =
      retryOnInterrupt([&] { return ::write(file, bytes.data(), bytes.size()); });
  if (written == static_cast<ssize_t>(bytes.size())) return {};
  if (written >= 0) errno = ENOSPC;
  return std::unexpected(
      systemError(what, errno == ENOSPC ? ErrorCode::kExhausted : ErrorCode::kSystem));
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::uint32_t hashOf(std::string_view label) {
  return static_cast<std::uint32_t>(std::hash<std::string_view>()(label));
}

static_assert(StateFile::kMaximumBytes <= UINT32_MAX);

Result<std::vector<std::uint8_t>> contentsOf(std::span<const StoredJob> jobs,
                                             const Labels& removedByClient, std::string_view bootId,
                                             PlacesOfSubmissions& places) {
  std::vector<std::uint8_t> bytes = stateFileHeader(bootId);
  const std::uint64_t boot = bootMark(bootId);
  const auto add = [&](RecordKind kind, std::span<const std::uint8_t> payload) {
    const auto record = makeRecord(kind, payload, boot);
    bytes.insert(bytes.end(), record.begin(), record.end());
  };
  // These come before the jobs: the record also removes a job, and a job with the same label may
  // have been submitted since.
  for (const std::string& label : removedByClient)
    add(RecordKind::kRemovedByClient, bytesOf(label));
  for (const StoredJob& job : jobs) {
    const auto submitted = submittedPayload(job.origin, job.dictionary);
    if (!submitted) return std::unexpected(submitted.error());
    places[hashOf(job.label)] = static_cast<std::uint32_t>(bytes.size());
    add(RecordKind::kSubmitted, *submitted);
    // If the job runs, its last end was before its last start.
    if (job.runs && job.lastEnd) add(RecordKind::kEnded, endPayload(*job.lastEnd, job.label));
    if (job.lastStart) add(RecordKind::kStarted, startPayload(*job.lastStart, job.label));
    if (!job.runs && job.lastEnd) add(RecordKind::kEnded, endPayload(*job.lastEnd, job.label));
    if (job.isBeingRemoved) add(RecordKind::kRemoving, bytesOf(job.label));
  }
  return bytes;
}

// The reason for setting a damaged file aside. Empty if it has no damage.
std::string damageIn(const StateContents& contents) {
  std::string text;
  if (contents.damagedBytes > 0) {
    text = fmt::format("{} bytes from byte {} on are damaged; the sound records are kept",
                       contents.damagedBytes, contents.firstDamage);
  }
  if (contents.isTorn) {
    if (!text.empty()) text += "; ";
    text += "its last record is torn; what stands before it is kept";
  }
  std::size_t named = 0;
  for (const std::string& label : contents.lostDefinitions) {
    if (named == kMaximumNamedLosses) return text += ", ...";
    text += named++ == 0 ? "; lost is the definition of " : ", ";
    text += platform::quotedInMessage(label);
  }
  return text;
}

}  // namespace

Result<StateFile::Opened> StateFile::open(const std::string& folder, std::string_view bootId,
                                          platform::RunLoop& loop) {
  Opened opened;
  opened.file.reset(new StateFile);
  StateFile& self = *opened.file;
  self.path_ = folder + kFileName;
  self.bootId_ = bootId;
  self.boot_ = bootMark(bootId);
  auto lock = takeLock(folder + kLockName, loop);
  if (!lock) return std::unexpected(std::move(lock.error()));
  self.lock_ = *std::move(lock);
  self.whyNoFile_ = Error{ErrorCode::kNotFound, 0, self.path_ + " has not been made"};
  auto trusted = readTrusted(self.path_, bootId);
  if (trusted) {
    opened.jobs = std::move(trusted->contents.jobs);
    opened.removedByClient = std::move(trusted->contents.removedByClient);
    self.file_ = reopenForAppending(trusted->file);
    self.size_ = self.compactedSize_ = trusted->contents.wholeBytes;
    if (const std::string damage = damageIn(trusted->contents); !damage.empty()) {
      self.isTorn_ = self.isNamedTwice_ = true;
      opened.warnings.push_back(setAside(self.path_, true, damage));
    }
  } else if (platform::isShortage(trusted.error().osError)) {
    // The file may be valid. To go on without it would lose all definitions.
    return std::unexpected(std::move(trusted.error()));
  } else if (trusted.error().code != ErrorCode::kNotFound) {
    opened.warnings.push_back(
        setAside(self.path_, false, "not trusted: " + platform::describe(trusted.error())));
  }
  return opened;
}

Result<void> StateFile::compact(std::span<const StoredJob> jobs, const Labels& removedByClient) {
  auto replaced = replaceBy(jobs, removedByClient);
  if (!replaced) whyNoFile_ = replaced.error();
  return replaced;
}

Result<void> StateFile::replaceBy(std::span<const StoredJob> jobs, const Labels& removedByClient) {
  PlacesOfSubmissions places;
  const auto bytes = contentsOf(jobs, removedByClient, bootId_, places);
  if (!bytes) return std::unexpected(bytes.error());
  const std::string temporary = path_ + kNewSuffix;
  if (::unlink(temporary.c_str()) != 0 && errno != ENOENT) {
    return std::unexpected(systemError("removing " + temporary));
  }
  UniqueFd file(::open(temporary.c_str(),
                       O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC | O_NOFOLLOW, kMode));
  if (!file) return std::unexpected(systemError("creating " + temporary));
  // The umask may have cleared bits that open() expects.
  if (::fchmod(file.get(), kMode) != 0) {
    Error error = systemError("fchmod " + temporary);
    ::unlink(temporary.c_str());
    return std::unexpected(std::move(error));
  }
  if (auto written = writeWhole(file.get(), *bytes, "writing " + temporary); !written) {
    ::unlink(temporary.c_str());
    return written;
  }
  if (::rename(temporary.c_str(), path_.c_str()) != 0) {
    Error error = systemError("putting " + temporary + " in the place of " + path_);
    ::unlink(temporary.c_str());
    return std::unexpected(std::move(error));
  }
  file_ = std::move(file);
  submissions_ = std::move(places);
  size_ = compactedSize_ = bytes->size();
  isBehind_ = isTorn_ = isNamedTwice_ = false;
  return {};
}

void StateFile::discard() {
  ::unlink(path_.c_str());
  file_.reset();
}

bool StateFile::wantsCompaction() const {
  return !file_ || isBehind_ || size_ > std::max(2 * compactedSize_, kSmallBytes) ||
         size_ + kRoomBytes > kMaximumBytes;
}

std::size_t StateFile::costOf(std::string_view label, std::size_t submissionBytes) {
  // The records of a start, an end and the beginning of a removal.
  return submissionBytes + 3 * (sizeof(RecordHeader) + label.size()) + sizeof(StartFields) +
         sizeof(EndFields);
}

Result<void> StateFile::repair() {
  if (!isTorn_) return {};
  if (isNamedTwice_) {
    // The file set aside is this very file, and it goes on without its torn record. Remove the
    // second name. If that fails, it does no harm.
    ::unlink((path_ + kSetAsideSuffix).c_str());
    isNamedTwice_ = false;
  }
  return cutBackTo(size_);
}

Result<void> StateFile::makeReady(std::size_t recordBytes) {
  if (!file_ || isBehind_) return std::unexpected(whyNoFile_);
  if (auto repaired = repair(); !repaired) return repaired;
  if (size_ + recordBytes <= kMaximumBytes) return {};
  return std::unexpected(Error{ErrorCode::kExhausted, 0,
                               fmt::format("{}: expected at most {} bytes", path_, kMaximumBytes)});
}

Result<void> StateFile::append(RecordKind kind, std::span<const std::uint8_t> payload) {
  auto appended = appendRecord(makeRecord(kind, payload, boot_));
  if (!appended) fallBehind(appended.error());
  return appended;
}

Result<void> StateFile::append(RecordKind kind, std::string_view label) {
  return append(kind, bytesOf(label));
}

void StateFile::fallBehind(const Error& why) {
  if (!file_ || isBehind_) return;
  isBehind_ = true;
  whyNoFile_ = why;
}

Result<void> StateFile::appendRecord(std::span<const std::uint8_t> record) {
  if (auto ready = makeReady(record.size()); !ready) return ready;
  if (auto written = writeWhole(file_.get(), record, "writing " + path_); !written) {
    // If the cut fails now, repair() retries it before the next record, or the next host finds the
    // file torn.
    isTorn_ = true;
    static_cast<void>(cutBackTo(size_));
    return written;
  }
  size_ += record.size();
  return {};
}

Result<std::size_t> StateFile::appendSubmitted(JobOrigin origin, const platform::Value& dictionary,
                                               std::size_t mostCost) {
  const auto payload = submittedPayload(origin, dictionary);
  if (!payload) return std::unexpected(payload.error());
  const auto record = makeRecord(RecordKind::kSubmitted, *payload, boot_);
  const std::string* const label = dictionary["Label"].string();
  const std::size_t cost = costOf(label ? *label : "", record.size());
  if (cost > mostCost) {
    return std::unexpected(Error{
        ErrorCode::kExhausted, 0,
        fmt::format("{}: expected jobs of at most {} bytes in all; {} are left and it takes {}",
                    path_, kMaximumCost, mostCost, cost)});
  }
  if (auto appended = appendRecord(record); !appended) return std::unexpected(appended.error());
  if (label) submissions_[hashOf(*label)] = static_cast<std::uint32_t>(size_ - record.size());
  return record.size();
}

Result<void> StateFile::appendEnded(std::string_view label, const Ending& ending) {
  return append(RecordKind::kEnded, endPayload(ending, label));
}

Result<void> StateFile::appendRemoving(std::string_view label) {
  return appendRemoval(RecordKind::kRemoving, RecordKind::kSubmittedAndRemoving, label);
}

Result<void> StateFile::appendRemoved(std::string_view label) {
  submissions_.erase(hashOf(label));
  return append(RecordKind::kRemoved, label);
}

Result<void> StateFile::appendRemovedByClient(std::string_view label) {
  return appendRemoval(RecordKind::kRemovedByClient, RecordKind::kSubmittedAndRemovedByClient,
                       label);
}

Result<void> StateFile::appendRemoval(RecordKind kind, RecordKind inPlace, std::string_view label) {
  auto appended = append(kind, label);
  if (appended || !file_) return appended;
  const auto place = submissions_.find(hashOf(label));
  const auto known =
      place == submissions_.end() ? std::nullopt : std::optional<std::size_t>(place->second);
  // If this fails, too, the file says nothing of the removal until it is replaced.
  static_cast<void>(changeSubmission(file_, boot_, label, inPlace, known));
  return appended;
}

std::vector<std::uint8_t> StateFile::makeStartRecord(std::string_view label,
                                                     platform::Instant startedAt,
                                                     bool abandonsGroup) {
  StartFields fields;
  fields.abandonsGroup = abandonsGroup ? 1 : 0;
  fields.startedAt = startedAt.time_since_epoch().count();
  return makeRecord(RecordKind::kStarted, startPayload(fields, label), boot_);
}

StartTicket StateFile::ticketFor(std::span<std::uint8_t> record, int* writeError) {
  const auto ready = makeReady(record.size());
  if (!ready) fallBehind(ready.error());
  return {ready ? file_.get() : -1, record, writeError};
}

StartFields StateFile::countStart(std::span<const std::uint8_t> record, int writeError) {
  if (writeError != 0) {
    static_cast<void>(cutBackTo(size_));  // It may be there in part.
    fallBehind(Error{ErrorCode::kExhausted, writeError, "writing " + path_});
  } else if (file_ && !isBehind_) {
    size_ += record.size();
  }
  StartFields fields;
  std::memcpy(&fields, record.data() + sizeof(RecordHeader), sizeof fields);
  return fields;
}

Result<void> StateFile::cutBackTo(std::size_t mark) {
  if (!file_) return {};
  isTorn_ = true;
  size_ = mark;
  if (retryOnInterrupt([&] { return ::ftruncate(file_.get(), static_cast<off_t>(mark)); }) != 0) {
    return std::unexpected(systemError("cutting " + path_));
  }
  isTorn_ = false;
  return {};
}

}  // namespace jobhost
