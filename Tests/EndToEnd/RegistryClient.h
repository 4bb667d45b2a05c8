#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCConnection.h"

namespace platform {

// A program of the product as the registry of endpoints sees it, with any number of connections.
// Its replies come on its own threads.
class RegistryClient {
 public:
  static constexpr char kRegister[] = "registerXPCListenerEndpoint:forPasskey:withName:withReply:";
  static constexpr char kLookUp[] = "xpcListenerEndpointForPasskey:withName:withReply:";
  static constexpr char kSignature[] = "signatureWithReply:";
  static constexpr char kExecInfo[] = "requestExecutableInfo:withReply:";

  // A client of the daemon below that root.
  RegistryClient(std::string root, const SystemInformation& system);

  XPC& xpc() { return xpc_->xpc(); }
  // The passkey for registrations and lookups.
  const Value& passkey() const { return passkey_; }

  // Connects to the registry.
  std::shared_ptr<NSXPCConnection> connect();
  // Connects to the executable-information service, whose endpoint the registry returns; null if it
  // does not.
  std::shared_ptr<NSXPCConnection> connectToExecInfo();

  // The endpoint of a socket, which this binds below /tmp, where every user can, and which listens
  // from then on. Nothing stays there.
  static Value endpointOf(const UniqueFd& listener);

  // Blocks for the reply, for a minute at most; nothing if there is an error instead.
  static std::optional<Array> ask(NSXPCConnection& connection, std::string_view selector,
                                  Array arguments = {});

 private:
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  ProtocolTable protocols_;
  const Value passkey_;
  const std::unique_ptr<LinuxXPC> xpc_;
};

}  // namespace platform
