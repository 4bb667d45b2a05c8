#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Tools/servicemanagerctl/SupportBundle.h"

// The ends of the product's log files, or of its lines in the journal, without secrets. Bounded in
// size, and in time also where a disk or the journal hangs.
std::vector<SupportPart> supportLogs(const platform::PlatformConfiguration& configuration);

// Its parts, without a limit of time: the log file with its older ones, and the journal.
std::vector<SupportPart> supportLogFiles(const std::string& path);
SupportPart supportJournal(const std::string& root);

// The lines of a log file that the platform's own programs and libraries have written, without
// secrets. Services log to the same file, and their lines may have values of settings.
std::string ownLinesOf(std::string_view log);

// A line for the bundle from one of "journalctl -o json"; nothing if that is no entry.
std::optional<std::string> supportLineOf(const std::string& journalLine);
