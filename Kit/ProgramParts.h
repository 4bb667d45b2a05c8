#pragma once

#include <memory>
#include <optional>
#include <string>

#include <vantor/Result.h>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Logger/Logger.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"

namespace vantor {

// The parts of the platform that a program of the product uses. Belongs to the main thread.
struct ProgramParts {
  explicit ProgramParts(std::unique_ptr<platform::LinuxPlatform> made);
  ProgramParts(const ProgramParts&) = delete;
  ProgramParts& operator=(const ProgramParts&) = delete;

  // Connects to the bus with the first call.
  platform::DistributedNotificationCenter& center();
  // Makes it, with a thread, with the first call.
  Result<platform::XPC*> xpc();
  VantorDistantObject::Environment environment();

  const std::unique_ptr<platform::LinuxPlatform> linux;
  const std::string name;
  const LoggerBinding logger{linux->systemLog};
  const platform::ListenerPlaces places{linux->configuration};
  platform::ProtocolTable protocols;
  std::unique_ptr<platform::DistributedNotificationCenter> madeCenter;
  platform::NamedConnections connections;
  std::unique_ptr<platform::LinuxXPC> madeXPC;
  platform::BackgroundServiceClasses classes;
  // A further request to end must not kill the program while it ends.
  std::optional<platform::BackgroundServiceHost> host;
};

// One message to a server's object, and its answer.
Result<platform::Value> ask(VantorDistantObject& server, std::string_view selector,
                            platform::Array arguments = {});

}  // namespace vantor
