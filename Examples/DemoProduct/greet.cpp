// A client of the demo product: looks up the endpoint that its argument names, waits until the
// owner has registered it, and prints the answer.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "Examples/DemoProduct/GreetingEndpoint.h"
#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;

constexpr int kAttempts = 100;
constexpr std::chrono::milliseconds kPause(50);
constexpr std::chrono::seconds kTimeOut(5);

int fail(const std::string& why) {
  std::fputs(("greet: " + why + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

// Blocks for the reply; nothing if it does not come in time.
std::optional<Array> call(NSXPCConnection& connection, std::string_view selector, Array arguments) {
  // Shared with the handlers, which may outlive the wait.
  const auto reply = std::make_shared<std::promise<std::optional<Array>>>();
  connection.sendMessage(
      selector, std::move(arguments),
      [reply](Array values) { reply->set_value(std::move(values)); },
      [reply](const NSError& /*error*/) { reply->set_value(std::nullopt); });
  auto future = reply->get_future();
  if (future.wait_for(kTimeOut) != std::future_status::ready) return std::nullopt;
  return future.get();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return fail("expected the name of an endpoint");
  const auto linux = LinuxPlatform::make();
  if (!linux) return fail(describe(linux.error()));
  const auto xpc =
      LinuxXPC::make((*linux)->systemLog, ListenerPlaces((*linux)->configuration), std::nullopt);
  if (!xpc) return fail(describe(xpc.error()));
  ProtocolTable protocols;
  addServiceManagerProtocols(protocols);

  const auto registry = (*xpc)->xpc().makeConnection(kEndpointRegistryService);
  registry->setRemoteObjectInterface(protocols.find(kORBServiceManagerXPCInterfaceProtocol));
  registry->resume();
  std::shared_ptr<const NSXPCListenerEndpoint> endpoint;
  for (int attempt = 0; attempt < kAttempts && !endpoint; ++attempt) {
    if (attempt > 0) (*linux)->runLoop->sleepFor(kPause);  // The owner has been asked to register.
    const auto reply =
        call(*registry, "xpcListenerEndpointForPasskey:withName:withReply:",
             {Value(systemProfileData((*linux)->systemInformation)), Value(argv[1])});
    if (!reply) return fail("the service manager does not answer; is it running?");
    if (!reply->empty()) endpoint = endpointIn(reply->front());
  }
  if (!endpoint) return fail(std::string(argv[1]) + ": nobody has registered it");
  const auto service = (*xpc)->xpc().makeConnection(endpoint);
  service->setRemoteObjectInterface(&greetingProtocol());
  service->resume();
  const auto greeting = call(*service, "greetWithReply:", {});
  const std::string* text = greeting && !greeting->empty() ? greeting->front().string() : nullptr;
  if (!text) return fail(std::string(argv[1]) + ": its owner does not answer");
  std::puts(text->c_str());
  return EXIT_SUCCESS;
}
