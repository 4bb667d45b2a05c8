#include "Platform/Linux/Logging/LogSinkSocket.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/uio.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

ErrorCode sendErrorCode(int number) {
  switch (number) {
    case EAGAIN:
    case EMSGSIZE:
    case ENOBUFS:
    case ENOMEM:
    case ETOOMANYREFS:
      return ErrorCode::kExhausted;
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
    case ECONNRESET:
    case EPIPE:
      return ErrorCode::kNotFound;
    case EACCES:
    case EPERM:
      return ErrorCode::kDenied;
    default:
      return ErrorCode::kSystem;
  }
}

}  // namespace

Result<LogSinkAddress> LogSinkAddress::make(const std::string& path) {
  LogSinkAddress made;
  made.address_.sun_family = AF_UNIX;
  std::string reachable = path;
  if (path.size() >= sizeof(made.address_.sun_path)) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == path.npos ? "." : path.substr(0, slash + 1);
    made.folder_ = UniqueFd(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!made.folder_) return std::unexpected(systemError("open " + folder, ErrorCode::kNotFound));
    reachable = fmt::format("/proc/self/fd/{}/{}", made.folder_.get(),
                            path.substr(slash == path.npos ? 0 : slash + 1));
    if (reachable.size() >= sizeof(made.address_.sun_path))
      return std::unexpected(
          Error{ErrorCode::kInvalid, 0, "the socket's name is too long: " + path});
  }
  std::ranges::copy(reachable, made.address_.sun_path);
  return made;
}

LogSinkSocket::LogSinkSocket(std::string path, UniqueFd socket)
    : path_(std::move(path)), socket_(std::move(socket)) {}

Result<LogSinkSocket> LogSinkSocket::open(std::string path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return std::unexpected(systemError("socket", ErrorCode::kExhausted));
  return LogSinkSocket(std::move(path), std::move(socket));
}

Result<void> LogSinkSocket::send(std::string_view bytes) const {
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  return sendMessage(message);
}

Result<void> LogSinkSocket::sendDescriptor(int descriptor) const {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &descriptor, sizeof(int));
  return sendMessage(message);
}

// The socket is never connected: a connection would keep a receiver that another one has replaced
// under the same path.
Result<void> LogSinkSocket::sendMessage(msghdr& message) const {
  auto address = LogSinkAddress::make(path_);
  if (!address) return std::unexpected(std::move(address.error()));
  message.msg_name = const_cast<sockaddr_un*>(&address->address());
  message.msg_namelen = sizeof(sockaddr_un);
  const auto sent = retryOnInterrupt(
      [&] { return ::sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL); });
  if (sent < 0) return std::unexpected(systemError("sendmsg " + path_, sendErrorCode(errno)));
  return {};
}

}  // namespace platform
