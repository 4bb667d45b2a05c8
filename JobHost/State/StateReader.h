#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "JobHost/State/StateRecord.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The first bytes of every state file. The processes of another boot's file are gone, so no host
// takes it over.
std::vector<std::uint8_t> stateFileHeader(std::string_view bootId);

std::uint64_t bootMark(std::string_view bootId);

// The bytes of a record with its header and check. `boot` is a bootMark().
std::vector<std::uint8_t> makeRecord(RecordKind kind, std::span<const std::uint8_t> payload,
                                     std::uint64_t boot = 0);

// The payloads. kInvalid for a dictionary that no property list can hold.
platform::Result<std::vector<std::uint8_t>> submittedPayload(JobOrigin origin,
                                                             const platform::Value& dictionary);
std::vector<std::uint8_t> startPayload(const StartFields& start, std::string_view label);
std::vector<std::uint8_t> endPayload(const Ending& ending, std::string_view label);

struct StateContents {
  std::vector<StoredJob> jobs;  // in the order of their submission
  Labels removedByClient;
  bool isTorn = false;         // no sound record follows the place where the last one ends
  std::size_t wholeBytes = 0;  // the file's size without a torn record
  // Bytes between sound records, the place of the first, and the labels of the jobs whose
  // submission must have been there. Such a job is in `jobs` if it has a process.
  std::size_t damagedBytes = 0;
  std::size_t firstDamage = 0;
  Labels lostDefinitions;
};

// The place of the last sound submission of the job in the bytes of a state file.
std::optional<std::size_t> placeOfSubmission(std::span<const std::uint8_t> bytes,
                                             std::uint64_t boot, std::string_view label);

// The header of the sound record at the beginning of `bytes`, with another kind.
RecordHeader headerWithKind(RecordKind kind, std::span<const std::uint8_t> bytes);

// Reads the bytes of a state file. Damage costs only the records that it hits. kInvalid, with the
// reason and the place, if no record is of this boot and the file does not begin as one of it.
platform::Result<StateContents> readState(std::span<const std::uint8_t> bytes,
                                          std::string_view bootId);

}  // namespace jobhost
