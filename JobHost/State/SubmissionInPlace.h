#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "JobHost/State/StateRecord.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Changes the kind of the job's last submission in the state file, for which a full disk has room
// unless its file system copies what is overwritten. A kill can tear the header at most where two
// pages meet. That costs the definition of a job that is being removed anyway. `boot` is the file's
// bootMark(). kNotFound without a sound submission.
// Reads only that record if it is at `known`, else the whole file.
platform::Result<void> changeSubmission(const platform::UniqueFd& file, std::uint64_t boot,
                                        std::string_view label, RecordKind kind,
                                        std::optional<std::size_t> known = std::nullopt);

}  // namespace jobhost
