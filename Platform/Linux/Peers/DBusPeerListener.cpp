#include "Platform/Linux/Peers/DBusPeerListener.h"

#include <chrono>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

using namespace std::chrono_literals;

// The pause after accepting has failed.
constexpr auto kBackOff = 100ms;

UniqueFd openReserve() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

}  // namespace

Result<std::unique_ptr<DBusPeerListener>> DBusPeerListener::create(
    AsioRunLoop& loop, SharedByListeners shared, UniqueDBusServer server,
    std::optional<SocketName> name, const PeerListenerOptions& options, NewLink onLink) {
  std::unique_ptr<DBusPeerListener> listener(new DBusPeerListener(
      loop, std::move(shared), std::move(server), std::move(name), options, std::move(onLink)));
  listener->reserve_ = openReserve();
  if (!listener->reserve_) {
    return std::unexpected(systemError("a listener's reserve", ErrorCode::kExhausted));
  }
  DBusPeerListener* self = listener.get();  // The listener outlives its server and sources.
  const char* mechanisms[] = {"EXTERNAL", nullptr};
  if (!dbus_server_set_auth_mechanisms(self->server_.get(), mechanisms)) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "a listener's mechanisms"});
  }
  dbus_server_set_new_connection_function(
      self->server_.get(),
      [](DBusServer*, DBusConnection* connection, void* data) {
        static_cast<DBusPeerListener*>(data)->accepted(connection);
      },
      self, nullptr);
  auto sources = DBusSources::attach(loop, self->server_.get(),
                                     {.dispatch = [] {},
                                      .peerEnded = {},
                                      .handled = [self](unsigned) { self->afterAccepting(); }});
  if (!sources) return std::unexpected(std::move(sources.error()));
  self->sources_ = std::move(*sources);
  permitDescriptors(self->sources_->descriptor(), false);  // A connection that is admitted may.
  return listener;
}

DBusPeerListener::DBusPeerListener(AsioRunLoop& loop, SharedByListeners shared,
                                   UniqueDBusServer server, std::optional<SocketName> name,
                                   const PeerListenerOptions& options, NewLink onLink)
    : loop_(loop),
      shared_(std::move(shared)),
      options_(options),
      onLink_(std::make_shared<const NewLink>(std::move(onLink))),
      name_(std::move(name)),
      server_(std::move(server)),
      places_(std::make_shared<PeerPlaces>(::geteuid())) {}

DBusPeerListener::~DBusPeerListener() {
  if (name_) name_->remove();
  for (const auto& [address, link] : unknown_) link->close();
}

// If this returns without keeping the connection, libdbus closes it.
void DBusPeerListener::accepted(DBusConnection* connection) {
  int socket = -1;
  const bool isKnown = dbus_connection_get_socket(connection, &socket) != 0;
  // As if there were no descriptor.
  if (shared_.leavesReserve && isKnown && isOfDescriptorReserve(socket)) return;
  acceptedOne_ = true;
  auto created = DBusPeerLink::create(loop_, UniqueDBusConnection(dbus_connection_ref(connection)),
                                      options_.whileWaiting, options_.contents, shared_.turns);
  if (!created) return;
  const std::shared_ptr<DBusPeerLink>& link = *created;
  if (!link->isIn(options_.audience)) {
    if (options_.excluded) options_.excluded(link->peer());
    return link->close();
  }
  const std::uint32_t user = link->peer().user;
  DBusPeerLink::Lease lease;
  lease.messageTime = options_.messageTime;
  lease.account = shared_.accounts->take(user, {.connections = 1, .descriptors = 1});
  if (!lease.account) return link->close();
  const auto refuse = [weak = std::weak_ptr(link)](const char* why) {
    if (const auto held = weak.lock()) held->refuse({ErrorCode::kDenied, 0, why});
  };
  lease.place = places_->take(user, [refuse] { refuse("pushed out by newer connections"); });
  if (!lease.place) return link->close();
  lease.admissionTimer = loop_.startTimer(options_.admissionTime, RunLoop::Repeat::kOnce, [refuse] {
    refuse("did not show in time that it belongs here");
  });
  DBusPeerLink* key = link.get();
  unknown_.emplace(key, link);
  link->awaitPeer(
      std::move(lease), [this, key] { handOn(key); }, [this, key] { unknown_.erase(key); });
}

void DBusPeerListener::handOn(DBusPeerLink* link) {
  auto known = unknown_.extract(link);
  const auto onLink = onLink_;
  (*onLink)(std::move(known.mapped()));
}

void DBusPeerListener::afterAccepting() {
  if (std::exchange(acceptedOne_, false)) return;
  // Probably there is no descriptor for the connection. The socket stays readable, so without a
  // pause the loop would spin.
  rejectOne();
  sources_->pause();
  backingOff_ = loop_.startTimer(kBackOff, RunLoop::Repeat::kOnce, [this] { sources_->resume(); });
}

// A client is better off with a closed connection than with one that is never accepted.
void DBusPeerListener::rejectOne() {
  reserve_.reset();
  std::ignore = UniqueFd(::accept4(sources_->descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
  reserve_ = openReserve();
}

}  // namespace platform
