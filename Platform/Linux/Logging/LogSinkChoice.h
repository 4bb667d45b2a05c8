#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/Logging/JournalLogSink.h"
#include "Platform/Linux/Logging/SyslogLogSink.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

// The system's own sockets, which are outside the platform root.
struct LogSockets {
  std::string journal = kJournalSocket;
  std::string syslog = kSyslogSocket;
};

// The default log sink of the platform at `root`. For a root other than "/" it is the file, so that
// an installation in a folder does not write to the system's log. Otherwise it is the journal if
// one listens, else the classic system log if one listens, else the file.
PlatformConfiguration::LogSink chooseLogSink(const std::string& root,
                                             const LogSockets& sockets = {});

// The log file of the platform at `root`: log/system.log below it, and
// /var/log/vantor/system.log where the root is the machine's.
std::string logFile(const std::string& root);

// Makes that sink; the file is logFile(). Its receiver need not be running. Fails only if the
// system has no descriptor left.
Result<std::unique_ptr<LogSink>> makeLogSink(const std::string& root,
                                             PlatformConfiguration::LogSink choice,
                                             const LogSockets& sockets = {});

}  // namespace platform
