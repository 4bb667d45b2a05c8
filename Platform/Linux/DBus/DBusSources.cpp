#include "Platform/Linux/DBus/DBusSources.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <system_error>
#include <tuple>
#include <utility>

#include <poll.h>
#include <sys/ioctl.h>

namespace platform {

namespace {

unsigned wantedOf(const std::vector<DBusWatch*>& watches) {
  unsigned wanted = 0;
  for (DBusWatch* watch : watches) {
    if (dbus_watch_get_enabled(watch)) wanted |= dbus_watch_get_flags(watch);
  }
  return wanted;
}

bool isOpenAtTheOtherEnd(Descriptor socket) {
  pollfd entry{socket, POLLRDHUP, 0};
  return ::poll(&entry, 1, 0) == 0;
}

bool hasUnreadBytes(Descriptor socket) {
  int bytes = 0;
  return ::ioctl(socket, FIONREAD, &bytes) == 0 && bytes > 0;
}

std::unexpected<Error> noRoom() {
  return std::unexpected(Error{ErrorCode::kExhausted, 0, "waiting for a D-Bus socket"});
}

}  // namespace

Result<std::unique_ptr<DBusSources>> DBusSources::attach(AsioRunLoop& loop,
                                                         DBusConnection* connection,
                                                         Callbacks callbacks) {
  std::unique_ptr<DBusSources> sources(new DBusSources(loop, std::move(callbacks)));
  sources->connection_ = connection;
  if (!dbus_connection_set_watch_functions(connection, &addWatch, &removeWatch, &toggleWatch,
                                           sources.get(), nullptr) ||
      !dbus_connection_set_timeout_functions(connection, &addTimeout, &removeTimeout,
                                             &toggleTimeout, sources.get(), nullptr)) {
    return noRoom();
  }
  dbus_connection_set_dispatch_status_function(
      connection,
      [](DBusConnection*, DBusDispatchStatus status, void* self) {
        // libdbus forbids dispatching from inside this callback.
        if (status == DBUS_DISPATCH_DATA_REMAINS) {
          static_cast<DBusSources*>(self)->scheduleDispatch();
        }
      },
      sources.get(), nullptr);
  if (dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_DATA_REMAINS) {
    sources->scheduleDispatch();
  }
  return sources;
}

Result<std::unique_ptr<DBusSources>> DBusSources::attach(AsioRunLoop& loop, DBusServer* server,
                                                         Callbacks callbacks) {
  std::unique_ptr<DBusSources> sources(new DBusSources(loop, std::move(callbacks)));
  sources->server_ = server;
  if (!dbus_server_set_watch_functions(server, &addWatch, &removeWatch, &toggleWatch, sources.get(),
                                       nullptr) ||
      !dbus_server_set_timeout_functions(server, &addTimeout, &removeTimeout, &toggleTimeout,
                                         sources.get(), nullptr)) {
    return noRoom();
  }
  return sources;
}

DBusSources::DBusSources(AsioRunLoop& loop, Callbacks callbacks)
    : loop_(loop), shared_(std::make_shared<Shared>(this, std::move(callbacks))) {}

DBusSources::~DBusSources() {
  shared_->owner = nullptr;
  if (connection_ != nullptr) {
    dbus_connection_set_dispatch_status_function(connection_, nullptr, nullptr, nullptr);
    dbus_connection_set_watch_functions(connection_, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_connection_set_timeout_functions(connection_, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
  if (server_ != nullptr) {
    dbus_server_set_watch_functions(server_, nullptr, nullptr, nullptr, nullptr, nullptr);
    dbus_server_set_timeout_functions(server_, nullptr, nullptr, nullptr, nullptr, nullptr);
  }
}

void DBusSources::scheduleDispatch() {
  if (dispatchPosted_) return;
  dispatchPosted_ = true;
  auto dispatch = [weak = std::weak_ptr(shared_)] {
    const auto shared = weak.lock();
    if (!shared || shared->owner == nullptr) return false;
    shared->owner->dispatchPosted_ = false;
    shared->callbacks.dispatch();
    return true;
  };
  if (shared_->callbacks.post) return shared_->callbacks.post(std::move(dispatch));
  loop_.post([dispatch = std::move(dispatch)] { std::ignore = dispatch(); });
}

DBusSources::Handled DBusSources::handleWithin(Duration limit) {
  if (entries_.empty()) return Handled::kNothingToWaitFor;
  const Entry& entry = *entries_.front();
  const unsigned wanted = wantedOf(entry.watches);
  pollfd descriptor{entry.descriptor, 0, 0};
  if (wanted & DBUS_WATCH_READABLE) descriptor.events |= POLLIN;
  if (wanted & DBUS_WATCH_WRITABLE) descriptor.events |= POLLOUT;
  limit = std::max(limit, Duration::zero());
  const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
  const timespec time{static_cast<std::time_t>(seconds.count()),
                      static_cast<long>((limit - seconds).count())};
  const int ready = ::ppoll(&descriptor, 1, &time, nullptr);
  if (ready < 0) return Handled::kSome;  // Interrupted by a signal; the caller checks its deadline.
  if (ready == 0) return Handled::kTimedOut;
  unsigned flags = 0;
  if (descriptor.revents & (POLLIN | POLLHUP | POLLERR)) flags |= DBUS_WATCH_READABLE;
  if (descriptor.revents & (POLLOUT | POLLHUP | POLLERR)) flags |= DBUS_WATCH_WRITABLE;
  flags &= wanted;
  // The connection has ended, and libdbus does not watch for that.
  if (flags == 0) return Handled::kNothingToWaitFor;
  handle(descriptor.fd, flags);
  return Handled::kSome;
}

void DBusSources::pause() {
  if (std::exchange(paused_, true)) return;
  for (const auto& entry : entries_) entry->readable.reset();
}

void DBusSources::resume() {
  if (!std::exchange(paused_, false)) return;
  for (const auto& entry : entries_) arm(*entry);
}

Descriptor DBusSources::descriptor() const {
  return entries_.empty() ? -1 : entries_.front()->descriptor;
}

dbus_bool_t DBusSources::addWatch(DBusWatch* watch, void* self) {
  auto* sources = static_cast<DBusSources*>(self);
  const Descriptor descriptor = dbus_watch_get_unix_fd(watch);
  Entry* entry = sources->find(descriptor);
  if (entry == nullptr) {
    entry = sources->entries_.emplace_back(std::make_unique<Entry>()).get();
    entry->descriptor = descriptor;
  }
  entry->watches.push_back(watch);
  if (sources->arm(*entry)) return 1;
  removeWatch(watch, self);
  return 0;
}

void DBusSources::removeWatch(DBusWatch* watch, void* self) {
  auto* sources = static_cast<DBusSources*>(self);
  // libdbus closes the descriptor after this call, so no entry may use it any more.
  for (auto entry = sources->entries_.begin(); entry != sources->entries_.end(); ++entry) {
    if (std::erase((*entry)->watches, watch) == 0) continue;
    if ((*entry)->watches.empty()) {
      sources->wasGivenUp_ = isOpenAtTheOtherEnd((*entry)->descriptor);
      sources->armWriting(**entry, false);
      sources->entries_.erase(entry);
    } else {
      sources->arm(**entry);
    }
    return;
  }
}

void DBusSources::toggleWatch(DBusWatch* watch, void* self) {
  auto* sources = static_cast<DBusSources*>(self);
  Entry* entry = sources->find(dbus_watch_get_unix_fd(watch));
  // Without room the connection hangs until its owner's time-out; every call has one.
  if (entry != nullptr) sources->arm(*entry);
}

dbus_bool_t DBusSources::addTimeout(DBusTimeout* timeout, void* self) {
  return static_cast<DBusSources*>(self)->armTimeout(timeout);
}

void DBusSources::removeTimeout(DBusTimeout* timeout, void* self) {
  static_cast<DBusSources*>(self)->timeouts_.erase(timeout);
}

void DBusSources::toggleTimeout(DBusTimeout* timeout, void* self) {
  static_cast<DBusSources*>(self)->armTimeout(timeout);
}

DBusSources::Entry* DBusSources::find(Descriptor descriptor) {
  const auto found =
      std::ranges::find(entries_, descriptor, [](const auto& entry) { return entry->descriptor; });
  return found == entries_.end() ? nullptr : found->get();
}

bool DBusSources::arm(Entry& entry) {
  const unsigned wanted = wantedOf(entry.watches);
  if (!entry.death && shared_->callbacks.peerEnded) {
    auto death = loop_.watchReadable(entry.descriptor, Urgency::kConnectionDeath,
                                     [weak = std::weak_ptr(shared_)] {
                                       const auto shared = weak.lock();
                                       if (shared && shared->owner) shared->callbacks.peerEnded();
                                     });
    if (!death) return false;
    entry.death = std::move(*death);
  }
  return armReading(entry, !paused_ && (wanted & DBUS_WATCH_READABLE) != 0) &&
         armWriting(entry, (wanted & DBUS_WATCH_WRITABLE) != 0);
}

bool DBusSources::armReading(Entry& entry, bool wanted) {
  if (wanted == (entry.readable != nullptr)) return true;
  if (!wanted) {
    entry.readable.reset();
    return true;
  }
  auto readable = loop_.watchReadable(
      entry.descriptor, Urgency::kOrdinary,
      [this, descriptor = entry.descriptor] { handle(descriptor, DBUS_WATCH_READABLE); });
  if (!readable) return false;
  entry.readable = std::move(*readable);
  return true;
}

// Asio waits for writing, because the loop waits for reading only. A full socket is rare.
bool DBusSources::armWriting(Entry& entry, bool wanted) {
  if (wanted == entry.writer.has_value()) return true;
  if (!wanted) {
    std::ignore = entry.writer->release();
    entry.writer.reset();
    return true;
  }
  std::error_code error;
  entry.writer.emplace(loop_.context());
  entry.writer->assign(entry.descriptor, error);
  if (error) {
    entry.writer.reset();
    return false;
  }
  entry.writerNumber = ++lastWriter_;
  entry.writer->async_wait(
      asio::posix::stream_descriptor::wait_write,
      [weak = std::weak_ptr(shared_), &loop = loop_, descriptor = entry.descriptor,
       number = entry.writerNumber](std::error_code failed) {
        if (failed) return;
        loop.post([weak, descriptor, number] {
          const auto shared = weak.lock();
          if (!shared || shared->owner == nullptr) return;
          DBusSources& self = *shared->owner;
          Entry* found = self.find(descriptor);
          if (found == nullptr || !found->writer || found->writerNumber != number) return;
          self.armWriting(*found, false);
          self.handle(descriptor, DBUS_WATCH_WRITABLE);
          if (shared->owner == nullptr) return;
          if (Entry* still = self.find(descriptor)) self.arm(*still);
        });
      });
  return true;
}

void DBusSources::handle(Descriptor descriptor, unsigned flags) {
  const std::shared_ptr<Shared> shared = shared_;
  const Entry* entry = find(descriptor);
  if (entry == nullptr) return;
  const std::vector<DBusWatch*> watches = entry->watches;
  // A blocking call may have read what made the descriptor readable.
  unsigned done = flags;
  if (connection_ != nullptr && !hasUnreadBytes(descriptor)) done &= ~unsigned{DBUS_WATCH_READABLE};
  for (DBusWatch* watch : watches) {
    // Each call may end the connection, and with it destroy any watch, entry and this object.
    if (shared->owner == nullptr) return;
    entry = find(descriptor);
    if (entry == nullptr || std::ranges::find(entry->watches, watch) == entry->watches.end()) break;
    const unsigned wanted = flags & dbus_watch_get_flags(watch);
    if (wanted != 0 && dbus_watch_get_enabled(watch)) dbus_watch_handle(watch, wanted);
  }
  if (shared->owner != nullptr && shared->callbacks.handled) shared->callbacks.handled(done);
}

bool DBusSources::armTimeout(DBusTimeout* timeout) {
  timeouts_.erase(timeout);
  if (!dbus_timeout_get_enabled(timeout)) return true;
  const auto interval = std::chrono::milliseconds(std::max(dbus_timeout_get_interval(timeout), 1));
  timeouts_[timeout] = loop_.startTimer(interval, RunLoop::Repeat::kEvery,
                                        [timeout] { dbus_timeout_handle(timeout); });
  return true;
}

}  // namespace platform
