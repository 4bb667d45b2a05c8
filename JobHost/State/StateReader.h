#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "JobHost/State/StateRecord.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The first bytes of every state file. A file of another boot is nobody's: its processes are gone.
std::vector<std::uint8_t> stateFileHeader(std::string_view bootId);

// A record's bytes, its check included.
std::vector<std::uint8_t> makeRecord(RecordKind kind, std::span<const std::uint8_t> payload);

// Payloads. A dictionary that no property list can hold is kInvalid.
platform::Result<std::vector<std::uint8_t>> submittedPayload(JobOrigin origin,
                                                             const platform::Value& dictionary);
std::vector<std::uint8_t> startPayload(const StartFields& start, std::string_view label);
std::vector<std::uint8_t> endPayload(const Ending& ending, std::string_view label);

struct StateContents {
  std::vector<StoredJob> jobs;  // in the order in which they came
  Labels dismissed;
  bool isTorn = false;         // the last record is cut short; it does not count
  std::size_t wholeBytes = 0;  // of the file, without a torn record
};

// What the bytes of a state file say. kInvalid, with the reason and the place, for what is not one
// of this boot.
platform::Result<StateContents> readState(std::span<const std::uint8_t> bytes,
                                          std::string_view bootId);

}  // namespace jobhost
