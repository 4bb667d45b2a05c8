#include "JobHost/Output/JournalStream.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/Logging/LogSinkSocket.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {

using platform::Error;
using platform::Result;
using platform::systemError;
using platform::UniqueFd;

Result<UniqueFd> openJournalStream(std::string_view label, const std::string& socketPath) {
  const auto failed = [&] { return std::unexpected(systemError("connecting to " + socketPath)); };
  const auto address = platform::LogSinkAddress::make(socketPath);
  if (!address) return std::unexpected(address.error());
  UniqueFd stream(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!stream) return failed();
  if (::connect(stream.get(), reinterpret_cast<const sockaddr*>(&address->address()),
                sizeof(sockaddr_un)) != 0) {
    return failed();
  }
  if (::shutdown(stream.get(), SHUT_RD) != 0) return failed();
  // The identifier, no unit, the level "info", levels at the beginning of a line count, and no
  // forwarding to the system log, the kernel's log and the console.
  const std::string header = fmt::format("{}\n\n6\n1\n0\n0\n0\n", label);
  if (::send(stream.get(), header.data(), header.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(header.size())) {
    return failed();
  }
  const int flags = ::fcntl(stream.get(), F_GETFL);
  if (flags < 0 || ::fcntl(stream.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return failed();
  return stream;
}

}  // namespace jobhost
