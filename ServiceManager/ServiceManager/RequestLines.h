#pragma once

#include <source_location>
#include <string_view>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Texts/StringFormat.h"
#include "Platform/XPC/NSXPCConnection.h"

// The first line about an XPC connection.
inline void logNewConnection(const platform::NSXPCConnection& connection,
                             const std::source_location& where = std::source_location::current()) {
  if (!connection.mayLog()) return;
  vantorlogger2_line(platform::ASL_LEVEL_DEBUG,
                     platform::stringWithFormat(
                         "Received a new connection request. pid: %d, uid: %d",
                         connection.processIdentifier(), connection.effectiveUserIdentifier()),
                     where);
}

// A line about the XPC request that this thread serves. If its user has caused many lines, it is
// only counted: nobody may flush the log.
inline void logRequest(int level, std::string_view message,
                       const std::source_location& where = std::source_location::current()) {
  if (platform::NSXPCConnection::mayLogRequest()) vantorlogger2_line(level, message, where);
}
