#include "Tests/EndToEnd/RegistryClient.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Sockets/SocketEndpoint.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace platform {

RegistryClient::RegistryClient(std::string root, const SystemInformation& system)
    : passkey_(systemProfileData(system)),
      xpc_(std::move(*LinuxXPC::make(log_, ListenerPlaces(defaultPlatformConfiguration(root)),
                                     std::nullopt))) {
  addServiceManagerProtocols(protocols_);
}

std::shared_ptr<NSXPCConnection> RegistryClient::connect() {
  auto connection = xpc().makeConnection(kEndpointRegistryService);
  connection->setRemoteObjectInterface(protocols_.find(kORBServiceManagerXPCInterfaceProtocol));
  connection->resume();
  return connection;
}

std::shared_ptr<NSXPCConnection> RegistryClient::connectToExecInfo() {
  const auto registry = connect();
  const auto found = ask(*registry, kLookUp, {passkey_, Value(kExecInfoEndpoint)});
  auto endpoint = found && !found->empty() ? endpointIn(found->front()) : nullptr;
  if (!endpoint) return nullptr;
  auto connection = xpc().makeConnection(std::move(endpoint));
  connection->setRemoteObjectInterface(protocols_.find(kORBExecutableInfoProtocol));
  connection->resume();
  return connection;
}

Value RegistryClient::endpointOf(const UniqueFd& listener) {
  std::string folder = "/tmp/registry-client-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) std::abort();
  const std::string path = folder + "/socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const bool listens =
      ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
      ::listen(listener.get(), 8) == 0;
  UniqueFd inode(::open(path.c_str(), O_PATH | O_CLOEXEC));
  ::unlink(path.c_str());
  ::rmdir(folder.c_str());
  const auto endpoint = SocketEndpoint::of(std::move(inode));
  if (!listens || !endpoint) std::abort();
  return Value(std::shared_ptr<const RemoteObject>(*endpoint));
}

std::optional<Array> RegistryClient::ask(NSXPCConnection& connection, std::string_view selector,
                                         Array arguments) {
  // Shared with the handlers, which may outlive the wait.
  const auto answer = std::make_shared<std::promise<std::optional<Array>>>();
  connection.sendMessage(
      selector, std::move(arguments),
      [answer](Array values) { answer->set_value(std::move(values)); },
      [answer](const NSError& /*error*/) { answer->set_value(std::nullopt); });
  auto future = answer->get_future();
  if (future.wait_for(std::chrono::minutes(1)) != std::future_status::ready) return std::nullopt;
  return future.get();
}

}  // namespace platform
