#pragma once

#include <functional>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"

// The parts that the connections of one thread are made from. The loop and the transport belong to
// that thread; nobody needs to run the loop, since a client that only calls waits on its own
// connection.
struct SettingsThread {
  platform::RunLoop& runLoop;
  platform::PeerTransport& transport;
  platform::SystemLog& log;
  platform::NamedConnections::PlaceOfName placeOfName;
  const platform::ProtocolTable& protocols;
  const platform::SystemInformation& system;
};

// Calls `ask` with the factories of settings clients that belong to the calling thread and end with
// this call. They don't observe the starts of their servers: a client that asks once needs no
// notice, and the observers of the daemon's notification centre belong to the main thread.
void withSettingsOfThisThread(const SettingsThread& thread,
                              const std::function<void(const SettingsClientFactories&)>& ask);
