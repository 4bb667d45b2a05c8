#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <asio/posix/stream_descriptor.hpp>
#include <dbus/dbus.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Values/Error.h"

namespace platform {

// Drives one DBusConnection or one DBusServer by the run loop: its watches, its time-outs and, for
// a connection, dispatching. To use libdbus on the loop, for instance for a message bus:
//
// open the connection with dbus_connection_open_private(), never with the shared or bus calls;
// attach() it, with a `dispatch` that handles one message (dbus_connection_dispatch() or
// dbus_connection_pop_message()) and calls scheduleDispatch() if more remain;
// register with a bus by an asynchronous Hello; keep a table of pending calls and fail them on
// "Disconnected", because libdbus forgets them; destroy this before the connection is closed.
//
// Messages are read as ordinary sources, and each dispatch runs as an ordinary post of its own.
// Exits and connection deaths that precede the reading of a message are therefore delivered before
// it. Everything runs on the loop's thread. The connection or server must outlive this.
class DBusSources {
 public:
  struct Callbacks {
    // There is something to dispatch, or the connection has ended. Posted once for each request.
    // May destroy the sources.
    std::function<void()> dispatch;
    // The peer has closed its end. Called with Urgency::kConnectionDeath; messages that the peer
    // sent before may still be unread. May destroy the sources. Optional.
    std::function<void()> peerEnded;
    // A descriptor was handled, with these flags of DBusWatchFlags; a connection's was readable
    // only if there were bytes to read. Servers learn from it that accepting may have failed. May
    // destroy the sources. Optional.
    std::function<void(unsigned flags)> handled;
    // Posts each dispatch instead of the loop, for instance in an order of its own. A dispatch
    // returns whether these sources were still there. Optional.
    std::function<void(std::move_only_function<bool()>)> post = {};
  };

  // Fails with kExhausted if there is no room to watch the descriptor.
  static Result<std::unique_ptr<DBusSources>> attach(AsioRunLoop& loop, DBusConnection* connection,
                                                     Callbacks callbacks);
  static Result<std::unique_ptr<DBusSources>> attach(AsioRunLoop& loop, DBusServer* server,
                                                     Callbacks callbacks);

  DBusSources(const DBusSources&) = delete;
  DBusSources& operator=(const DBusSources&) = delete;
  ~DBusSources();

  void scheduleDispatch();

  // Blocks this thread for at most `limit` until libdbus can read or write, and lets it do so.
  // Nothing is dispatched and nothing else is served.
  enum class Handled { kSome, kTimedOut, kNothingToWaitFor };
  Handled handleWithin(Duration limit);

  // Stops watching descriptors for reading, and resumes. Both may be called again.
  void pause();
  void resume();

  // Whether libdbus closed the last descriptor although the other side still had its end open, as
  // it does if a peer breaks the protocol. libdbus reports this nowhere. A peer that breaks the
  // protocol and closes at once can't be detected.
  bool wasGivenUp() const { return wasGivenUp_; }

  // The first descriptor, -1 if there is none or none any more.
  Descriptor descriptor() const;

 private:
  struct Entry {
    Descriptor descriptor;
    std::vector<DBusWatch*> watches;
    std::unique_ptr<RunLoopHandle> readable;
    std::unique_ptr<RunLoopHandle> death;
    std::optional<asio::posix::stream_descriptor> writer;
    std::uint64_t writerNumber = 0;  // tells this wait from older ones
  };
  // Outlives this object in running callbacks.
  struct Shared {
    DBusSources* owner;
    Callbacks callbacks;
  };

  DBusSources(AsioRunLoop& loop, Callbacks callbacks);

  static dbus_bool_t addWatch(DBusWatch* watch, void* self);
  static void removeWatch(DBusWatch* watch, void* self);
  static void toggleWatch(DBusWatch* watch, void* self);
  static dbus_bool_t addTimeout(DBusTimeout* timeout, void* self);
  static void removeTimeout(DBusTimeout* timeout, void* self);
  static void toggleTimeout(DBusTimeout* timeout, void* self);

  Entry* find(Descriptor descriptor);
  // False if there is no room.
  bool arm(Entry& entry);
  bool armReading(Entry& entry, bool wanted);
  bool armWriting(Entry& entry, bool wanted);
  void handle(Descriptor descriptor, unsigned flags);
  bool armTimeout(DBusTimeout* timeout);

  AsioRunLoop& loop_;
  std::shared_ptr<Shared> shared_;  // with running callbacks, which check `owner`
  DBusConnection* connection_ = nullptr;
  DBusServer* server_ = nullptr;
  std::vector<std::unique_ptr<Entry>> entries_;
  std::map<DBusTimeout*, std::unique_ptr<RunLoopHandle>> timeouts_;
  std::uint64_t lastWriter_ = 0;
  bool dispatchPosted_ = false;
  bool paused_ = false;
  bool wasGivenUp_ = false;
};

}  // namespace platform
