#include "Platform/Linux/KernelExtensions/ControlServer.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/KernelExtensions/ControlFolder.h"
#include "Platform/Linux/KernelExtensions/ControlMessages.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

constexpr int kBacklog = 16;
// Without a descriptor for accept() the socket stays readable. The pause avoids a busy loop.
constexpr Duration kAcceptPause = std::chrono::milliseconds(100);

Result<UniqueFd> bindAndListen(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return std::unexpected(systemError("a socket", ErrorCode::kExhausted));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return std::unexpected(Error{ErrorCode::kInvalid, ENAMETOOLONG, path});
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return std::unexpected(systemError("binding the socket"));
  }
  if (::listen(socket.get(), kBacklog) != 0) {
    return std::unexpected(systemError("listening"));
  }
  return socket;
}

int errorNumberOf(const Error& error) { return error.osError == 0 ? EINVAL : error.osError; }

}  // namespace

Result<std::unique_ptr<ControlServer>> ControlServer::listen(RunLoop& loop, const std::string& root,
                                                             std::string_view name,
                                                             MakeControlHandler makeHandler) {
  const std::string_view control = controlName(name);
  if (!isControlName(control)) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, fmt::format("\"{}\" can't be a control's name", name)});
  }
  if (auto made = makeControlFolder(root); !made) return std::unexpected(made.error());
  UniqueFd socket;
  auto taken = SocketName::take(controlFolder(root) + "/" + std::string(control), {},
                                [&](const std::string& path) -> Result<void> {
                                  auto listening = bindAndListen(path);
                                  if (!listening) return std::unexpected(listening.error());
                                  socket = *std::move(listening);
                                  return {};
                                });
  if (!taken) return std::unexpected(taken.error());
  std::unique_ptr<ControlServer> server(
      new ControlServer(loop, std::move(socket), *std::move(taken), std::move(makeHandler)));
  if (auto watched = server->watchForClients(); !watched) return std::unexpected(watched.error());
  return server;
}

ControlServer::ControlServer(RunLoop& loop, UniqueFd socket, SocketName name,
                             MakeControlHandler makeHandler)
    : loop_(loop),
      socket_(std::move(socket)),
      name_(std::move(name)),
      makeHandler_(std::move(makeHandler)) {}

ControlServer::~ControlServer() { name_.remove(); }

Result<void> ControlServer::watchForClients() {
  auto source = loop_.watchReadable(socket_.get(), Urgency::kOrdinary, [this] { accept(); });
  if (!source) return std::unexpected(source.error());
  source_ = *std::move(source);
  return {};
}

void ControlServer::accept() {
  UniqueFd client(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (client) {
    if (checkControlPeer(client.get())) add(std::move(client));
    if (clients_.size() >= kMaxClients) source_.reset();
    return;
  }
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
  source_.reset();
  pause_ = loop_.startTimer(kAcceptPause, RunLoop::Repeat::kOnce, [this] {
    // If it still can't be watched, the end of the next client tries again.
    if (clients_.size() < kMaxClients) static_cast<void>(watchForClients());
  });
}

void ControlServer::add(UniqueFd socket) {
  const auto client = clients_.emplace(clients_.end());
  client->socket = std::move(socket);
  auto source = loop_.watchReadable(client->socket.get(), Urgency::kOrdinary, [this, client] {
    if (!serve(*client)) drop(client);
  });
  if (!source) {
    clients_.erase(client);
    return;
  }
  client->source = *std::move(source);
  client->handler = makeHandler_();
}

void ControlServer::drop(std::list<Client>::iterator client) {
  client->source.reset();
  clients_.erase(client);
  if (!source_) static_cast<void>(watchForClients());
}

int ControlServer::prepareToUnload() const {
  // A client that has hung up no longer counts, even if it has not been dropped yet.
  const auto isThere = [](const Client& client) {
    char byte = 0;
    return ::recv(client.socket.get(), &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) != 0;
  };
  return std::ranges::count_if(clients_, isThere) > 1 ? EBUSY : 0;  // The caller is one of them.
}

bool ControlServer::serve(Client& client) {
  ControlRequestBuffer buffer;
  const ssize_t received = ::recv(client.socket.get(), buffer.data(), buffer.size(), 0);
  if (received < 0) return errno == EAGAIN || errno == EINTR;
  const auto size = static_cast<std::size_t>(received);
  if (size < sizeof(ControlRequest) || size == buffer.size()) return false;
  ControlRequest request;
  std::memcpy(&request, buffer.data(), sizeof request);
  const std::span<const std::uint8_t> bytes(buffer.data() + sizeof request, size - sizeof request);
  ControlAnswer answer;
  Data content;
  switch (static_cast<ControlOperation>(request.operation)) {
    case ControlOperation::kGetOption: {
      auto option = client.handler->getOption(request.option);
      if (option && option->size() > kMaxControlOptionBytes) answer.errorNumber = EMSGSIZE;
      if (!option) answer.errorNumber = errorNumberOf(option.error());
      if (option && answer.errorNumber == 0) content = *std::move(option);
      break;
    }
    case ControlOperation::kSetOption: {
      const auto done = client.handler->setOption(request.option, bytes);
      if (!done) answer.errorNumber = errorNumberOf(done.error());
      ::explicit_bzero(buffer.data(), buffer.size());  // It may have been a secret.
      break;
    }
    case ControlOperation::kPrepareToUnload:
      answer.errorNumber = prepareToUnload();
      break;
    case ControlOperation::kPing:
      break;
    default:  // An unknown operation.
      answer.errorNumber = EOPNOTSUPP;
  }
  iovec parts[] = {{&answer, sizeof answer}, {content.data(), content.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  return ::sendmsg(client.socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

}  // namespace platform
