#pragma once

#include <string>
#include <utility>

#include "Platform/Logging/SystemLog.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Testing/Logging/FakeLogSink.h"

namespace platform {

// One program's objects for named connections in a test. Belongs to its loop's thread.
struct ConnectedProgram {
  ConnectedProgram(RunLoop& itsLoop, PeerTransport& itsTransport,
                   NamedConnections::PlaceOfName path)
      : loop(itsLoop),
        transport(itsTransport),
        connections(itsLoop, itsTransport, center, log, std::move(path)) {}

  RunLoop& loop;
  PeerTransport& transport;
  FakeLogSink sink;
  SystemLog log{sink, "program"};
  NotificationCenter center;
  NamedConnections connections;
};

// A delegate that sends one text and expects another.
class TokenDelegate final : public NSConnectionDelegate {
 public:
  TokenDelegate(std::string shown, std::string expected)
      : shown_(std::move(shown)), expected_(std::move(expected)) {}

  void setShown(std::string shown) { shown_ = std::move(shown); }
  void refuseNewConnections() { makesNewConnections_ = false; }

  bool connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) override {
    shouldMakeNewConnection.setDelegate(parent.delegate());
    return makesNewConnections_;
  }
  Data authenticationDataForComponents(const Array& /*components*/) override {
    return Data(shown_.begin(), shown_.end());
  }
  bool authenticateComponents(const Array& /*components*/, const Data& withData) override {
    return withData == Data(expected_.begin(), expected_.end());
  }

 private:
  std::string shown_;
  const std::string expected_;
  bool makesNewConnections_ = true;
};

}  // namespace platform
