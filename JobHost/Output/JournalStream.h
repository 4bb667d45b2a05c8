#pragma once

#include <string>
#include <string_view>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace jobhost {

inline constexpr char kJournalStreamSocket[] = "/run/systemd/journal/stdout";

// Opens a stream to the journal for what a process prints. The journal cuts it into lines, with
// `label` as their identifier. Does not wait. A process keeps the stream while the journal is
// restarted.
platform::Result<platform::UniqueFd> openJournalStream(
    std::string_view label, const std::string& socketPath = kJournalStreamSocket);

}  // namespace jobhost
