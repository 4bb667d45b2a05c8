#include "JobHost/State/StateReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <sys/wait.h>

#include "Platform/PropertyLists/PropertyList.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::ExitStatus;
using platform::Result;
using platform::Value;
using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

// Contains the version of the format.
constexpr std::string_view kMagic = "vantorjobs 2\n";

template <typename Fields>
void add(Bytes& bytes, const Fields& fields) {
  const auto raw = std::bit_cast<std::array<std::uint8_t, sizeof(Fields)>>(fields);
  // Not insert(): GCC 12 warns of an overflow in it under the sanitizers.
  std::ranges::copy(raw, std::back_inserter(bytes));
}

void add(Bytes& bytes, std::string_view text) {
  bytes.insert(bytes.end(), text.begin(), text.end());
}

// Removes the fields from the beginning of `bytes`, which is long enough.
template <typename Fields>
Fields take(View& bytes) {
  std::array<std::uint8_t, sizeof(Fields)> raw;
  std::copy_n(bytes.begin(), raw.size(), raw.begin());
  bytes = bytes.subspan(raw.size());
  return std::bit_cast<Fields>(raw);
}

std::string textOf(View bytes) { return {bytes.begin(), bytes.end()}; }

// Replays the records in their order. Each function returns whether its record makes sense. A
// record of an unknown job does: the job's submission was lost.
class Replay {
 public:
  bool play(RecordKind kind, View payload) {
    switch (kind) {
      case RecordKind::kSubmitted:
        return submitted(payload) != nullptr;
      case RecordKind::kStarted:
        return started(payload);
      case RecordKind::kEnded:
        return ended(payload);
      case RecordKind::kRemoving:
        return removing(payload);
      case RecordKind::kRemoved:
        return removed(payload);
      case RecordKind::kRemovedByClient:
        return removedByClient(payload);
      case RecordKind::kSubmittedAndRemoving:
        return submittedAndRemoving(payload) != nullptr;
      case RecordKind::kSubmittedAndRemovedByClient:
        return submittedAndRemovedByClient(payload);
    }
    return false;
  }

  StateContents contents() && {
    StateContents result;
    for (auto& [number, job] : jobs_) {
      // Nothing but its process says anything about a job without a definition.
      if (job.runs || !lostDefinitions_.contains(job.label)) result.jobs.push_back(std::move(job));
    }
    result.lostDefinitions = std::move(lostDefinitions_);
    result.removedByClient = std::move(removedByClient_);
    return result;
  }

 private:
  StoredJob* find(View label) {
    const auto found = numbers_.find(textOf(label));
    return found == numbers_.end() ? nullptr : &jobs_[found->second];
  }

  StoredJob& add(const std::string& label) {
    const auto [place, isNew] = numbers_.try_emplace(label, next_);
    if (isNew) ++next_;
    StoredJob& job = jobs_[place->second];
    job.label = label;
    return job;
  }

  // Null for a record that makes no sense.
  StoredJob* submitted(View payload) {
    if (payload.empty()) return nullptr;
    const auto origin = static_cast<JobOrigin>(payload.front());
    if (origin != JobOrigin::kLoaded && origin != JobOrigin::kSubmitted) {
      return nullptr;
    }
    auto dictionary = platform::readPropertyList(payload.subspan(1), "");
    const std::string* label = dictionary ? (*dictionary)["Label"].string() : nullptr;
    if (!label) return nullptr;
    const bool isKnown = numbers_.contains(*label) && !lostDefinitions_.contains(*label);
    StoredJob& job = add(*label);
    if (isKnown && isReplacedByClient(job.origin, origin)) removedByClient_.insert(*label);
    lostDefinitions_.erase(*label);
    job.origin = origin;
    job.dictionary = *std::move(dictionary);
    job.submissionBytes = sizeof(RecordHeader) + payload.size();
    return &job;
  }

  StoredJob* submittedAndRemoving(View payload) {
    StoredJob* const job = submitted(payload);
    if (job) job->isBeingRemoved = true;
    return job;
  }

  bool submittedAndRemovedByClient(View payload) {
    const StoredJob* const job = submittedAndRemoving(payload);
    if (job) removedByClient_.insert(job->label);
    return job != nullptr;
  }

  bool started(View payload) {
    if (payload.size() <= sizeof(StartFields)) return false;
    const auto fields = take<StartFields>(payload);
    if (fields.process <= 0) return false;
    StoredJob* job = find(payload);
    if (!job) {
      job = &add(textOf(payload));
      job->dictionary = StoredJob::lostDefinition(job->label);
      lostDefinitions_.insert(job->label);
    }
    job->lastStart = fields;
    job->runs = true;
    return true;
  }

  bool ended(View payload) {
    if (payload.size() < sizeof(EndFields)) return false;
    const auto fields = take<EndFields>(payload);
    if (StoredJob* const job = find(payload)) {
      job->runs = false;
      job->lastEnd = fields.isKnown != 0 ? Ending(processEndOf(fields.waitStatus)) : Ending();
    }
    return true;
  }

  bool removing(View payload) {
    if (StoredJob* const job = find(payload)) job->isBeingRemoved = true;
    return true;
  }

  bool removed(View payload) {
    const auto found = numbers_.find(textOf(payload));
    if (found == numbers_.end()) return true;
    lostDefinitions_.erase(found->first);
    jobs_.erase(found->second);
    numbers_.erase(found);
    return true;
  }

  bool removedByClient(View payload) {
    if (payload.empty()) return false;
    removedByClient_.insert(textOf(payload));
    return removing(payload);
  }

  Labels lostDefinitions_;
  Labels removedByClient_;
  std::map<std::string, std::size_t> numbers_;
  std::map<std::size_t, StoredJob> jobs_;
  std::size_t next_ = 0;
};

// The part of a header before the pid namespace.
View beforeNamespace(View header) {
  return header.first(static_cast<std::size_t>(std::ranges::find(header, '/') - header.begin()));
}

// The reason why a file without a record of this boot is not one of this boot.
std::string_view faultOf(View bytes, View expected) {
  if (bytes.empty()) return "it is empty";
  if (!std::ranges::equal(bytes.first(std::min(kMagic.size(), bytes.size())), kMagic)) {
    return "it is no state file of jobs";
  }
  const View boot = beforeNamespace(expected);
  const View rest = bytes.subspan(std::min(boot.size(), bytes.size()));
  const bool isThisBoot = std::ranges::equal(bytes.first(bytes.size() - rest.size()), boot) &&
                          std::ranges::find(rest, '\n') != rest.end();
  return isThisBoot ? "it is from another pid namespace" : "it is not from this boot";
}

// The size of the sound record at the beginning of `bytes`, 0 if there is none.
std::size_t soundRecordSize(View bytes, std::uint64_t boot) {
  if (bytes.size() < sizeof(RecordHeader)) return 0;
  View payload = bytes;
  const auto header = take<RecordHeader>(payload);
  if (header.boot != boot || header.size > payload.size()) return 0;
  return header.check == recordCheck(header, payload.data()) ? sizeof header + header.size : 0;
}

bool isSubmissionOf(std::string_view label, View record) {
  const auto header = take<RecordHeader>(record);
  if (header.kind != static_cast<std::uint32_t>(RecordKind::kSubmitted) || record.empty()) {
    return false;
  }
  const auto dictionary = platform::readPropertyList(record.subspan(1), "");
  return dictionary && (*dictionary)["Label"] == Value(label);
}

// The place of the next sound record after the first byte, or the size of `bytes`.
std::size_t nextSoundRecord(View bytes, std::uint64_t boot) {
  const auto mark = std::bit_cast<std::array<std::uint8_t, sizeof boot>>(boot);
  for (auto from = bytes.begin() + 1;; ++from) {
    from = std::search(from, bytes.end(), mark.begin(), mark.end());
    const auto place = static_cast<std::size_t>(from - bytes.begin());
    if (from == bytes.end() || soundRecordSize(bytes.subspan(place), boot) > 0) return place;
  }
}

}  // namespace

std::int32_t waitStatusOf(const ProcessEnd& end) {
  const ExitStatus& status = end.status;
  if (status.kind == ExitStatus::Kind::kExited) return (status.number & 0xff) << 8;
  return (status.number & 0x7f) | (end.hasCore ? WCOREFLAG : 0);
}

ProcessEnd processEndOf(std::int32_t waitStatus) {
  if (!WIFSIGNALED(waitStatus)) {
    return ExitStatus{ExitStatus::Kind::kExited, WEXITSTATUS(waitStatus)};
  }
  return {ExitStatus{ExitStatus::Kind::kSignalled, WTERMSIG(waitStatus)},
          WCOREDUMP(waitStatus) != 0};
}

Bytes stateFileHeader(std::string_view bootId) {
  Bytes bytes;
  add(bytes, kMagic);
  add(bytes, bootId);
  add(bytes, std::string_view("\n"));
  return bytes;
}

std::uint64_t bootMark(std::string_view bootId) {
  return hashOn(kEmptyHash, reinterpret_cast<const std::uint8_t*>(bootId.data()), bootId.size());
}

Bytes makeRecord(RecordKind kind, View payload, std::uint64_t boot) {
  RecordHeader header{boot, static_cast<std::uint32_t>(payload.size()),
                      static_cast<std::uint32_t>(kind), 0};
  header.check = recordCheck(header, payload.data());
  Bytes bytes;
  bytes.reserve(sizeof header + payload.size());
  add(bytes, header);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

Result<Bytes> submittedPayload(JobOrigin origin, const Value& dictionary) {
  const auto list = platform::writePropertyList(dictionary, platform::PropertyListFormat::kBinary);
  if (!list) return std::unexpected(list.error());
  Bytes bytes(1 + list->size());
  bytes.front() = static_cast<std::uint8_t>(origin);
  std::ranges::copy(*list, bytes.begin() + 1);
  return bytes;
}

Bytes startPayload(const StartFields& start, std::string_view label) {
  Bytes bytes;
  add(bytes, start);
  add(bytes, label);
  return bytes;
}

Bytes endPayload(const Ending& ending, std::string_view label) {
  EndFields fields;
  if (ending) fields = {1, waitStatusOf(*ending)};
  Bytes bytes;
  add(bytes, fields);
  add(bytes, label);
  return bytes;
}

std::optional<std::size_t> placeOfSubmission(View bytes, std::uint64_t boot,
                                             std::string_view label) {
  std::optional<std::size_t> place;
  for (std::size_t at = 0; at < bytes.size();) {
    const View rest = bytes.subspan(at);
    const std::size_t size = soundRecordSize(rest, boot);
    if (size > 0 && isSubmissionOf(label, rest.first(size))) place = at;
    at += size > 0 ? size : nextSoundRecord(rest, boot);
  }
  return place;
}

RecordHeader headerWithKind(RecordKind kind, View bytes) {
  auto header = take<RecordHeader>(bytes);
  header.kind = static_cast<std::uint32_t>(kind);
  header.check = recordCheck(header, bytes.data());
  return header;
}

Result<StateContents> readState(View bytes, std::string_view bootId) {
  const std::uint64_t boot = bootMark(bootId);
  const Bytes expected = stateFileHeader(bootId);
  const bool hasHeader =
      bytes.size() >= expected.size() && std::ranges::equal(bytes.first(expected.size()), expected);
  Replay replay;
  StateContents damage;
  const auto skip = [&](View rest, std::size_t size) {
    if (damage.damagedBytes == 0) damage.firstDamage = bytes.size() - rest.size();
    damage.damagedBytes += size;
    return rest.subspan(size);
  };
  std::size_t wholeBytes = hasHeader ? expected.size() : 0;
  for (View rest = bytes.subspan(wholeBytes); !rest.empty();) {
    const std::size_t size = soundRecordSize(rest, boot);
    if (size == 0) {
      const std::size_t next = nextSoundRecord(rest, boot);
      if (next == rest.size()) break;
      rest = skip(rest, next);
      continue;
    }
    View payload = rest.first(size);
    const auto header = take<RecordHeader>(payload);
    const bool makesSense = replay.play(static_cast<RecordKind>(header.kind), payload);
    rest = makesSense ? rest.subspan(size) : skip(rest, size);
    wholeBytes = bytes.size() - rest.size();
  }
  if (wholeBytes == 0) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, fmt::format("at byte 0: {}", faultOf(bytes, expected))});
  }
  StateContents contents = std::move(replay).contents();
  contents.isTorn = wholeBytes < bytes.size();
  contents.wholeBytes = wholeBytes;
  contents.damagedBytes = damage.damagedBytes;
  contents.firstDamage = damage.firstDamage;
  return contents;
}

}  // namespace jobhost
