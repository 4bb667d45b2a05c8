#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/Logging/JournalLogSink.h"
#include "Platform/Linux/Logging/SyslogLogSink.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

// The system's own sockets, which lie outside the platform root.
struct LogSockets {
  std::string journal = kJournalSocket;
  std::string syslog = kSyslogSocket;
};

// Where the platform at `root` logs to when its configuration does not say: for a root other than
// "/" the file, so that an installation in a folder leaves the system's log alone; else the journal
// where one listens, else the classic system log where one listens, else the file.
PlatformConfiguration::LogSink chooseLogSink(const std::string& root,
                                             const LogSockets& sockets = {});

// The log file of the platform at `root`: log/system.log below it.
std::string logFile(const std::string& root);

// That sink; the file is logFile(). Its receiver need not be there. Fails only
// when the system has no descriptor left.
Result<std::unique_ptr<LogSink>> makeLogSink(const std::string& root,
                                             PlatformConfiguration::LogSink choice,
                                             const LogSockets& sockets = {});

}  // namespace platform
