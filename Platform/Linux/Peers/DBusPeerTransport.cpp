#include "Platform/Linux/Peers/DBusPeerTransport.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/DBus/DBusConnecting.h"
#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Linux/Peers/DBusPeerListener.h"
#include "Platform/Linux/Sockets/SocketEndpoint.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/RunLoops/TimerQueue.h"

namespace platform {

namespace {

using Kind = PeerConnectFailure::Kind;

// The owner's end of a connection.
class DBusPeerConnection final : public PeerConnection {
 public:
  explicit DBusPeerConnection(std::shared_ptr<DBusPeerLink> link) : link_(std::move(link)) {}
  DBusPeerConnection(const DBusPeerConnection&) = delete;
  DBusPeerConnection& operator=(const DBusPeerConnection&) = delete;
  ~DBusPeerConnection() override { link_->close(); }

  PeerCredentials peer() const override { return link_->peer(); }
  PeerState peerState() const override { return link_->peerState(); }
  void admit() override { link_->admit(); }
  void setHandlers(PeerHandlers handlers) override { link_->setHandlers(std::move(handlers)); }
  MessageResult call(std::string_view selector, const Array& arguments, Duration timeout) override {
    const auto link = link_;  // A handler that is called meanwhile may destroy this.
    return link->call(selector, arguments, timeout);
  }
  void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                 Completion completion) override {
    link_->callAsync(selector, arguments, timeout, std::move(completion));
  }
  Result<void> send(std::string_view selector, const Array& arguments) override {
    return link_->send(selector, arguments);
  }
  void close() override { link_->close(); }

 private:
  std::shared_ptr<DBusPeerLink> link_;  // shared as DBusPeerLink.h says
};

DBusPeerListener::NewLink wrapping(PeerTransport::NewConnection onConnection) {
  return [onConnection = std::move(onConnection)](std::shared_ptr<DBusPeerLink> link) {
    onConnection(std::make_unique<DBusPeerConnection>(std::move(link)));
  };
}

Result<UniqueDBusServer> listenAt(const std::string& address) {
  DBusErrorText error;
  UniqueDBusServer server(dbus_server_listen(address.c_str(), error.get()));
  if (server) return server;
  const bool limits = error.is(DBUS_ERROR_LIMITS_EXCEEDED) || error.is(DBUS_ERROR_NO_MEMORY);
  return std::unexpected(
      Error{limits ? ErrorCode::kExhausted : ErrorCode::kSystem, 0, error.text()});
}

Result<void> checkPassed(Descriptor passed) {
  const auto wrong = [passed](const char* what) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, "descriptor " + std::to_string(passed) + " is not " + what});
  };
  if (passed != kFirstPassedDescriptor) return wrong("the first that is passed to a process, 3");
  const auto option = [passed](int name) {
    int content = -1;
    socklen_t length = sizeof(content);
    return ::getsockopt(passed, SOL_SOCKET, name, &content, &length) == 0 ? content : -1;
  };
  if (option(SO_DOMAIN) != AF_UNIX || option(SO_TYPE) != SOCK_STREAM) {
    return wrong("a Unix stream socket");
  }
  if (option(SO_ACCEPTCONN) != 1) return wrong("a listening socket");
  return {};
}

// The group matters only to a mode with permissions for it.
SocketPermission permissionOf(const PeerListenerOptions& options) {
  const std::uint32_t mode = options.socketMode.value_or(options.audience.socketMode());
  return {.mode = mode,
          .group = (mode & 0060) != 0 && !options.audience.everybody ? options.audience.group
                                                                     : std::nullopt};
}

// Whether the listener's owner may be asked at all. The kernel knows who called listen().
Result<void> checkServer(const UniqueFd& socket, const PeerAudience& servers) {
  const auto server = peerOfSocket(socket.get(), "the owner of the other side");
  if (!server) return std::unexpected(server.error());
  if (servers.admitsUser(server->user, ::geteuid())) return {};
  return std::unexpected(Error{ErrorCode::kDenied, EPERM,
                               fmt::format("the other side belongs to user {}, whom this program "
                                           "does not trust",
                                           server->user)});
}

PeerConnectFailure failureOf(Error error) {
  switch (error.osError) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
      return {Kind::kNobodyThere, std::move(error)};
    case EACCES:
    case EPERM:
      return {Kind::kRefused, std::move(error)};
    case EAGAIN:
      return {Kind::kTimedOut, std::move(error)};
    default:
      return {Kind::kSystem, std::move(error)};
  }
}

}  // namespace

std::shared_ptr<PeerAccounts> DBusPeerTransport::makeAccounts() {
  return std::make_shared<PeerAccounts>(::geteuid(),
                                        PeerAccounts::limitsFor(softDescriptorLimit()));
}

DBusPeerTransport::DBusPeerTransport(AsioRunLoop& loop, std::string endpointFolder)
    : DBusPeerTransport(loop, makeAccounts(), std::move(endpointFolder)) {}

DBusPeerTransport::DBusPeerTransport(AsioRunLoop& loop, std::shared_ptr<PeerAccounts> accounts,
                                     std::string endpointFolder)
    : loop_(loop),
      shared_{.accounts = std::move(accounts),
              .turns = std::make_shared<PeerTurns>(loop, ::geteuid())},
      endpointFolder_(std::move(endpointFolder)) {
  dbus_threads_init_default();
  // The program's signals are its own business; libdbus sends so that none is raised.
  dbus_connection_set_change_sigpipe(false);
}

Result<std::unique_ptr<PeerListener>> DBusPeerTransport::listen(const std::string& path,
                                                                const PeerListenerOptions& options,
                                                                NewConnection onConnection) {
  if (auto passed = passed_.extract(path); !passed.empty()) {
    return DBusPeerListener::create(loop_, shared_, UniqueDBusServer(passed.mapped().release()),
                                    std::nullopt, options, wrapping(std::move(onConnection)));
  }
  UniqueDBusServer server;
  auto name = SocketName::take(path, permissionOf(options), [&](const std::string& bindPath) {
    auto listening = listenAt("unix:path=" + bindPath);
    if (!listening) return Result<void>(std::unexpected(std::move(listening.error())));
    server = std::move(*listening);
    return Result<void>();
  });
  if (!name) return std::unexpected(std::move(name.error()));
  return DBusPeerListener::create(loop_, shared_, std::move(server), std::move(*name), options,
                                  wrapping(std::move(onConnection)));
}

Result<PeerTransport::Anonymous> DBusPeerTransport::listenAnonymously(
    const PeerListenerOptions& options, NewConnection onConnection) {
  UniqueDBusServer server;
  if (endpointFolder_.empty()) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, "there is no folder for endpoints"});
  }
  auto made =
      SocketEndpoint::make(endpointFolder_, permissionOf(options), [&](const std::string& path) {
        auto listening = listenAt("unix:path=" + path);
        if (!listening) return Result<void>(std::unexpected(std::move(listening.error())));
        server = std::move(*listening);
        return Result<void>();
      });
  if (!made) return std::unexpected(std::move(made.error()));
  auto listener = DBusPeerListener::create(loop_, shared_, std::move(server),
                                           SocketName::nameless(std::move(made->bindFolder)),
                                           options, wrapping(std::move(onConnection)));
  if (!listener) return std::unexpected(std::move(listener.error()));
  return Anonymous{std::move(*listener), std::move(made->endpoint)};
}

void DBusPeerTransport::adopt(std::string path, PassedServer passed) {
  passed_.insert_or_assign(std::move(path), std::move(passed));
}

Result<std::unique_ptr<PeerListener>> DBusPeerTransport::listenOn(
    Descriptor passed, const PeerListenerOptions& options, NewConnection onConnection) {
  if (auto checked = checkPassed(passed); !checked) {
    return std::unexpected(std::move(checked.error()));
  }
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", "1", 1);
  auto server = listenAt("systemd:");
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  if (!server) return std::unexpected(std::move(server.error()));
  return DBusPeerListener::create(loop_, shared_, std::move(*server), std::nullopt, options,
                                  wrapping(std::move(onConnection)));
}

std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> DBusPeerTransport::connect(
    const std::string& path, const PeerConnectOptions& options) {
  const Instant deadline = instantAfter(loop_.now(), options.timeout);
  const auto failed = [&path](Kind kind, const char* why) {
    return std::unexpected(PeerConnectFailure{
        kind, Error{ErrorCode::kDenied, 0, "connecting to " + path + ": " + why}});
  };
  auto socket = connectToSocket(path, options.timeout);
  if (!socket) return std::unexpected(failureOf(std::move(socket.error())));
  if (auto trusted = checkServer(*socket, options.servers); !trusted) {
    trusted.error().context = "connecting to " + path + ": " + trusted.error().context;
    return std::unexpected(failureOf(std::move(trusted.error())));
  }
  auto connection = openOverSocket(std::move(*socket));
  if (!connection) {
    return std::unexpected(PeerConnectFailure{Kind::kSystem, std::move(connection.error())});
  }
  auto link =
      DBusPeerLink::create(loop_, std::move(*connection), options.whileWaiting, options.contents);
  if (!link) return std::unexpected(PeerConnectFailure{Kind::kSystem, std::move(link.error())});
  if (!(*link)->awaitWelcome(deadline)) {
    const bool timedOut = (*link)->isConnected();
    (*link)->close();
    return timedOut ? failed(Kind::kTimedOut, "no answer in time")
                    : failed(Kind::kRefused, "the other side has closed");
  }
  return std::make_unique<DBusPeerConnection>(std::move(*link));
}

std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure>
DBusPeerTransport::connectToEndpoint(const NSXPCListenerEndpoint& endpoint,
                                     const PeerConnectOptions& options) {
  const auto* socket = dynamic_cast<const SocketEndpoint*>(&endpoint);
  if (socket == nullptr) {
    return std::unexpected(PeerConnectFailure{
        Kind::kSystem, Error{ErrorCode::kInvalid, 0, "an endpoint of another transport"}});
  }
  return connect(socket->path(), options);
}

}  // namespace platform
