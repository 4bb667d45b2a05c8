#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include "Platform/Linux/KernelExtensions/ControlFolder.h"
#include "Platform/Linux/KernelExtensions/ControlMessages.h"
#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

timeval timevalOf(Duration duration) {
  const auto microseconds = std::chrono::ceil<std::chrono::microseconds>(duration).count();
  return {static_cast<time_t>(microseconds / 1'000'000),
          static_cast<suseconds_t>(microseconds % 1'000'000)};
}

ErrorCode codeOfControlError(int number) {
  switch (number) {
    case ENOENT:
    case ECONNREFUSED:  // A dead extension has left its socket.
      return ErrorCode::kNotFound;
    case EACCES:
    case EPERM:
      return ErrorCode::kDenied;
    case EPROTOTYPE:
      return ErrorCode::kInvalid;
    default:
      return ErrorCode::kSystem;
  }
}

class LinuxControlSocket final : public ControlSocket {
 public:
  LinuxControlSocket(std::string folder, UniqueFd socket)
      : folder_(std::move(folder)), socket_(std::move(socket)) {}

  Result<void> findControl(std::string_view name) override {
    path_ = folder_ + "/" + std::string(name);
    if (!isControlName(name)) return fail(ErrorCode::kInvalid, 0, "this is no control's name");
    // From here on this very socket is held, and no other at the path.
    target_.reset(::open(path_.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
    if (!target_) return fail(codeOfControlError(errno), errno, "the control");
    struct stat status{};
    if (::fstat(target_.get(), &status) != 0)
      return fail(codeOfControlError(errno), errno, "the control");
    if (S_ISSOCK(status.st_mode)) return {};
    target_.reset();
    return fail(ErrorCode::kInvalid, ENOTSOCK, "the control");
  }

  Result<void> connect() override {
    if (!target_) return fail(ErrorCode::kNotFound, 0, "no control has been found");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // Connects through a descriptor, because an address holds only 107 bytes.
    fmt::format_to_n(address.sun_path, sizeof address.sun_path - 1, "/proc/self/fd/{}",
                     target_.get());
    const int connected = retryOnInterrupt([&] {
      return ::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    });
    if (connected != 0) return fail(codeOfControlError(errno), errno, "connecting");
    if (auto checked = checkControlPeer(socket_.get()); !checked) {
      return fail(checked.error().code, checked.error().osError, checked.error().context);
    }
    isConnected_ = true;
    if (const auto peer = peerOfSocket(socket_.get(), path_)) process_ = peer->process;
    return {};
  }

  ProcessId offeredBy() const override { return isConnected_ ? process_ : 0; }

  Result<ControlInteger> getIntegerOption(std::uint32_t option) override {
    ControlAnswerBuffer answer;
    const auto size = ask(ControlOperation::kGetOption, option, {}, answer);
    if (!size) return std::unexpected(size.error());
    ControlInteger integer{0, *size};
    std::memcpy(&integer.value, answer.data() + sizeof(ControlAnswer),
                std::min(*size, sizeof integer.value));
    return integer;
  }

  Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) override {
    if (bytes.size() > kMaxControlOptionBytes) {
      return fail(ErrorCode::kInvalid, EMSGSIZE,
                  fmt::format("option {} would have {} bytes, more than the {} that it may", option,
                              bytes.size(), kMaxControlOptionBytes));
    }
    return askWithoutAnswer(ControlOperation::kSetOption, option, bytes);
  }

  Result<void> ping() override { return askWithoutAnswer(ControlOperation::kPing, 0, {}); }

  Result<void> prepareToUnload() override {
    auto prepared = askWithoutAnswer(ControlOperation::kPrepareToUnload, 0, {});
    if (!prepared && isConnected_) prepared.error().code = ErrorCode::kDenied;
    return prepared;
  }

 private:
  std::unexpected<Error> fail(ErrorCode code, int number, const std::string& what) {
    return std::unexpected(Error{code, number, path_ + ": " + what});
  }

  // After a failure, a late answer must not be taken for the answer to a later request.
  std::unexpected<Error> giveUp(ErrorCode code, int number, const std::string& what) {
    isConnected_ = false;
    socket_.reset();
    return fail(code, number, what);
  }

  Result<void> askWithoutAnswer(ControlOperation operation, std::uint32_t option,
                                std::span<const std::uint8_t> bytes) {
    ControlAnswerBuffer answer;
    const auto size = ask(operation, option, bytes, answer);
    if (!size) return std::unexpected(size.error());
    if (*size == 0) return {};
    return giveUp(ErrorCode::kInvalid, 0, "an answer with bytes that nobody asked for");
  }

  // Returns the number of bytes after the head of the answer.
  Result<std::size_t> ask(ControlOperation operation, std::uint32_t option,
                          std::span<const std::uint8_t> bytes, ControlAnswerBuffer& buffer) {
    if (!isConnected_) return fail(ErrorCode::kInvalid, ENOTCONN, "the control");
    ControlRequest request{static_cast<std::uint32_t>(operation), option};
    // The bytes are sent from their place: another copy of a secret would have to be wiped.
    iovec parts[] = {{&request, sizeof request},
                     {const_cast<std::uint8_t*>(bytes.data()), bytes.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    if (retryOnInterrupt([&] { return ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL); }) < 0) {
      return giveUp(ErrorCode::kSystem, errno, fmt::format("asking for option {}", option));
    }
    const ssize_t received =
        retryOnInterrupt([&] { return ::recv(socket_.get(), buffer.data(), buffer.size(), 0); });
    if (received < 0) {
      return giveUp(ErrorCode::kSystem, errno == EAGAIN ? ETIMEDOUT : errno,
                    fmt::format("the answer about option {}", option));
    }
    const auto size = static_cast<std::size_t>(received);
    if (size == 0) return giveUp(ErrorCode::kSystem, ECONNRESET, "the extension has hung up");
    if (size < sizeof(ControlAnswer) || size == buffer.size()) {
      return giveUp(ErrorCode::kInvalid, 0, fmt::format("an answer of {} bytes", size));
    }
    ControlAnswer answer;
    std::memcpy(&answer, buffer.data(), sizeof answer);
    if (answer.errorNumber == 0) return size - sizeof answer;
    return fail(ErrorCode::kSystem, answer.errorNumber,
                fmt::format("the extension refuses option {}", option));
  }

  const std::string folder_;
  std::string path_;
  UniqueFd target_;  // the control's socket in the folder
  UniqueFd socket_;
  bool isConnected_ = false;
  ProcessId process_ = 0;
};

}  // namespace

LinuxKernelControls::LinuxKernelControls(const std::string& root, Duration timeout)
    : folder_(controlFolder(root)), timeout_(timeout) {}

Result<std::unique_ptr<ControlSocket>> LinuxKernelControls::openControlSocket() {
  UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket) return std::unexpected(systemError("a control socket", ErrorCode::kExhausted));
  // The kernel enforces the time-out, also for connect(), which blocks while the backlog is full.
  const timeval timeout = timevalOf(timeout_);
  for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
    if (::setsockopt(socket.get(), SOL_SOCKET, option, &timeout, sizeof timeout) != 0) {
      return std::unexpected(systemError("a control socket's time-out"));
    }
  }
  return std::make_unique<LinuxControlSocket>(folder_, std::move(socket));
}

}  // namespace platform
