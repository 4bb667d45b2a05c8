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

// Drives one DBusConnection or one DBusServer by the run loop: its watches, time-outs and, for a
// connection, the dispatching. To use libdbus on the loop, for instance for a message bus:
//
//   open the connection with dbus_connection_open_private(), never the shared or bus calls;
//   attach() it, with a `dispatch` that handles one message (dbus_connection_dispatch() or
//   dbus_connection_pop_message()) and calls scheduleDispatch() where more remain;
//   register with a bus by an asynchronous Hello; keep a table of outstanding calls and fail them
//   on "Disconnected", since libdbus forgets those; destroy this before the connection is closed.
//
// Messages are read as ordinary sources, and dispatch runs as an ordinary post of its own, so that
// exits and deaths that happened before a message was read are delivered before it. Everything runs
// on the loop's thread. The connection or server must outlive this.
class DBusSources {
 public:
  struct Callbacks {
    // There is something to dispatch, or the connection has ended; posted, once for each time that
    // it was asked for. May destroy the sources.
    std::function<void()> dispatch;
    // The peer has closed its end, with Urgency::kConnectionDeath; what it sent before may still be
    // unread. May destroy the sources. Optional.
    std::function<void()> peerEnded;
    // A descriptor was handled; for servers, whose accepting may have failed. Optional.
    std::function<void()> handled;
  };

  // Fails with kExhausted where there is no room to wait for the descriptor.
  static Result<std::unique_ptr<DBusSources>> attach(AsioRunLoop& loop, DBusConnection* connection,
                                                     Callbacks callbacks);
  static Result<std::unique_ptr<DBusSources>> attach(AsioRunLoop& loop, DBusServer* server,
                                                     Callbacks callbacks);

  DBusSources(const DBusSources&) = delete;
  DBusSources& operator=(const DBusSources&) = delete;
  ~DBusSources();

  void scheduleDispatch();

  // Waits on this thread until libdbus can read or write, `limit` at most, and lets it. Nothing is
  // dispatched and nothing else is served.
  enum class Handled { kSome, kTimedOut, kNothingToWaitFor };
  Handled handleWithin(Duration limit);

  // Stops waiting for descriptors to be readable, and goes on.
  void pause();
  void resume();

  // Whether libdbus gave the last descriptor up although the other side still had its end open, as
  // it does with a peer that breaks the protocol. It says so nowhere itself, and of a peer that
  // breaks it and closes at once nobody can tell.
  bool wasGivenUp() const { return wasGivenUp_; }

  // The first descriptor, -1 where there is none (any more).
  Descriptor descriptor() const;

 private:
  struct Entry {
    Descriptor descriptor;
    std::vector<DBusWatch*> watches;
    std::unique_ptr<RunLoopHandle> readable;
    std::unique_ptr<RunLoopHandle> death;
    std::optional<asio::posix::stream_descriptor> writer;
    std::uint64_t writerNumber = 0;  // of this wait, so that an older one is known
  };
  // What outlives this in callbacks that are under way.
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
  // False where there is no room.
  bool arm(Entry& entry);
  bool armReading(Entry& entry, bool wanted);
  bool armWriting(Entry& entry, bool wanted);
  void handle(Descriptor descriptor, unsigned flags);
  bool armTimeout(DBusTimeout* timeout);

  AsioRunLoop& loop_;
  std::shared_ptr<Shared> shared_;  // with callbacks that are under way, which look whether we are
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
