#include "JobHost/State/StateReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <map>
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
constexpr std::string_view kMagic = "vantorjobs 1\n";

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

// Replays the records in their order. Each function returns the fault of its record, or an empty
// text.
class Replay {
 public:
  std::string_view play(RecordKind kind, View payload) {
    switch (kind) {
      case RecordKind::kSubmitted:
        return submitted(payload);
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
    }
    return "a record of an unknown kind";
  }

  StateContents contents() && {
    StateContents result;
    for (auto& [number, job] : jobs_) result.jobs.push_back(std::move(job));
    result.removedByClient = std::move(removedByClient_);
    return result;
  }

 private:
  static constexpr std::string_view kUnknownJob = "a record of a job that was never submitted";

  StoredJob* find(View label) {
    const auto found = numbers_.find(textOf(label));
    return found == numbers_.end() ? nullptr : &jobs_[found->second];
  }

  std::string_view submitted(View payload) {
    if (payload.empty()) return "a submission without an origin";
    const auto origin = static_cast<JobOrigin>(payload.front());
    if (origin != JobOrigin::kLoaded && origin != JobOrigin::kSubmitted) {
      return "a submission of an unknown origin";
    }
    auto dictionary = platform::readPropertyList(payload.subspan(1), "");
    const std::string* label = dictionary ? (*dictionary)["Label"].string() : nullptr;
    if (!label) return "a submission without a label";
    const auto [place, isNew] = numbers_.try_emplace(*label, next_);
    if (isNew) ++next_;
    StoredJob& job = jobs_[place->second];
    if (!isNew && isReplacedByClient(job.origin, origin)) removedByClient_.insert(*label);
    job.label = *label;
    job.origin = origin;
    job.dictionary = *std::move(dictionary);
    job.submissionBytes = sizeof(RecordHeader) + payload.size();
    return {};
  }

  std::string_view started(View payload) {
    if (payload.size() < sizeof(StartFields)) return "a start without a process";
    const auto fields = take<StartFields>(payload);
    StoredJob* const job = find(payload);
    if (!job) return kUnknownJob;
    if (fields.process <= 0) return "a start without a process";
    job->lastStart = fields;
    job->runs = true;
    return {};
  }

  std::string_view ended(View payload) {
    if (payload.size() < sizeof(EndFields)) return "an end without a status";
    const auto fields = take<EndFields>(payload);
    StoredJob* const job = find(payload);
    if (!job) return kUnknownJob;
    job->runs = false;
    job->lastEnd = fields.isKnown != 0 ? Ending(processEndOf(fields.waitStatus)) : Ending();
    return {};
  }

  std::string_view removing(View payload) {
    StoredJob* const job = find(payload);
    if (!job) return kUnknownJob;
    job->isBeingRemoved = true;
    return {};
  }

  std::string_view removed(View payload) {
    const auto found = numbers_.find(textOf(payload));
    if (found == numbers_.end()) return kUnknownJob;
    jobs_.erase(found->second);
    numbers_.erase(found);
    return {};
  }

  std::string_view removedByClient(View payload) {
    if (payload.empty()) return "a dismissal without a label";
    removedByClient_.insert(textOf(payload));
    if (StoredJob* const job = find(payload)) job->isBeingRemoved = true;
    return {};
  }

  Labels removedByClient_;
  std::map<std::string, std::size_t> numbers_;
  std::map<std::size_t, StoredJob> jobs_;
  std::size_t next_ = 0;
};

// The part of a header before the pid namespace.
View beforeNamespace(View header) {
  return header.first(static_cast<std::size_t>(std::ranges::find(header, '/') - header.begin()));
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

Bytes makeRecord(RecordKind kind, View payload) {
  RecordHeader header{static_cast<std::uint32_t>(payload.size()), static_cast<std::uint32_t>(kind),
                      0};
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

Result<StateContents> readState(View bytes, std::string_view bootId) {
  const std::size_t total = bytes.size();
  const auto invalid = [&](std::string_view why, View rest) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, fmt::format("at byte {}: {}", total - rest.size(), why)});
  };
  if (bytes.empty()) return invalid("it is empty", bytes);
  const Bytes expected = stateFileHeader(bootId);
  const auto magic = bytes.first(std::min(kMagic.size(), total));
  if (!std::ranges::equal(magic, kMagic)) return invalid("it is no state file of jobs", bytes);
  if (total < expected.size() || !std::ranges::equal(bytes.first(expected.size()), expected)) {
    const View boot = beforeNamespace(expected);
    const View rest = bytes.subspan(std::min(boot.size(), total));
    const bool isThisBoot = std::ranges::equal(bytes.first(total - rest.size()), boot) &&
                            std::ranges::find(rest, '\n') != rest.end();
    return invalid(isThisBoot ? "it is from another pid namespace" : "it is not from this boot",
                   bytes);
  }
  Replay replay;
  View rest = bytes.subspan(expected.size());
  while (rest.size() >= sizeof(RecordHeader)) {
    View behind = rest;
    const auto header = take<RecordHeader>(behind);
    if (header.size > behind.size()) break;
    const View payload = behind.first(header.size);
    if (header.check != recordCheck(header, payload.data())) {
      return invalid("a record that does not check", rest);
    }
    if (const auto fault = replay.play(static_cast<RecordKind>(header.kind), payload);
        !fault.empty()) {
      return invalid(fault, rest);
    }
    rest = behind.subspan(header.size);
  }
  StateContents contents = std::move(replay).contents();
  contents.isTorn = !rest.empty();
  contents.wholeBytes = total - rest.size();
  return contents;
}

}  // namespace jobhost
