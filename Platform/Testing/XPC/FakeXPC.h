#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"
#include "Platform/XPC/XPC.h"

namespace platform {

// The XPC of one process of a test, on the virtual loop: the work of the real one's threads is done
// when the test runs the loop.
struct FakeXPC {
  // All of them outlive this.
  FakeXPC(FakePeerNetwork& network, PeerCredentials self, SystemLog& log)
      : accounts(std::make_shared<PeerAccounts>(self.user, PeerAccounts::limitsFor(kDescriptors))),
        transport(network, self, accounts),
        xpc({.loop = network.loop(),
             .transport = transport,
             .log = log,
             .performOnLoop = [](const std::function<void()>& action) { action(); },
             .makeQueues =
                 [&network] { return std::make_unique<VirtualSerialQueues>(network.loop()); },
             .place =
                 [](std::string_view name) {
                   return ListenerPlace("/mach/" + std::string(name), PeerAudience::all(), {});
                 },
             .endpointClients = PeerAudience::all(),
             .accounts = accounts}) {}

  static constexpr std::uint64_t kDescriptors = 1024;

  const std::shared_ptr<PeerAccounts> accounts;
  FakePeerTransport transport;
  XPC xpc;
};

}  // namespace platform
