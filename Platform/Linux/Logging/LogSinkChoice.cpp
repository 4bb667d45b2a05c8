#include "Platform/Linux/Logging/LogSinkChoice.h"

#include <utility>

#include <sys/socket.h>

#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

using Choice = PlatformConfiguration::LogSink;

// A dead owner may have left the socket, so check whether a process is bound to it.
bool somebodyListens(const std::string& path) {
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return false;
  const auto address = LogSinkAddress::make(path);
  if (!address) return false;
  return retryOnInterrupt([&] {
           return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address->address()),
                            sizeof(sockaddr_un));
         }) == 0;
}

}  // namespace

Choice chooseLogSink(const std::string& root, const LogSockets& sockets) {
  if (root != "/") return Choice::kFile;
  if (somebodyListens(sockets.journal)) return Choice::kJournal;
  if (somebodyListens(sockets.syslog)) return Choice::kSyslog;
  return Choice::kFile;
}

std::string logFile(const std::string& root) {
  return pathBelowRoot(root, root == "/" ? "var/log/vantor/system.log" : "log/system.log");
}

Result<std::unique_ptr<LogSink>> makeLogSink(const std::string& root, Choice choice,
                                             const LogSockets& sockets) {
  switch (choice) {
    case Choice::kJournal:
      return JournalLogSink::make(sockets.journal);
    case Choice::kSyslog:
      return SyslogLogSink::make(sockets.syslog);
    case Choice::kFile:
      break;
  }
  return std::make_unique<FileLogSink>(logFile(root));
}

}  // namespace platform
