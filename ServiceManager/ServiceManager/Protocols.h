#pragma once

#include "Platform/Messages/Protocol.h"

// The protocols that the daemon speaks, as it names them when it asks for them.

// The installer's requests.
inline constexpr char kORBServiceManagerInstallerProtocol[] = "ORBServiceManagerInstallerProtocol";
// The user interface's requests, and the notice that its clients get.
inline constexpr char kORBServiceManagerUserInterfaceProtocol[] =
    "ORBServiceManagerUserInterfaceProtocol";
inline constexpr char kORBServiceManagerUserInterfaceDelegateProtocol[] =
    "ORBServiceManagerUserInterfaceDelegateProtocol";
// Hands out the per-run secret.
inline constexpr char kServiceManagerAuthProtocol[] = "ServiceManagerAuthProtocol";
// The status of the configuration server.
inline constexpr char kORBServiceManagerConfigurationServerStatusProtocol[] =
    "ORBServiceManagerConfigurationServerStatusProtocol";
// The requests to the registry of XPC endpoints and to the executable-information service. A
// two-way method's last argument stands for its reply.
inline constexpr char kORBServiceManagerXPCInterfaceProtocol[] =
    "ORBServiceManagerXPCInterfaceProtocol";
inline constexpr char kORBExecutableInfoProtocol[] = "ORBExecutableInfoProtocol";

// The names under which they are found: the first is a Mach service, the second is registered with
// the first.
inline constexpr char kEndpointRegistryService[] = "com.vantor.common.servicemanager";
inline constexpr char kExecInfoEndpoint[] = "com.vantor.xpc.name.execinfohandler";
// Asks the owner of a name to register it. The name is in the user info under that key.
inline constexpr char kEndpointRequestNotification[] =
    "com.vantor.servicemanager.xpc.notification.registration";
inline constexpr char kEndpointRequestName[] = "requestName";

// The health reporter's requests.
inline constexpr char kServiceManagerHealthProtocol[] = "ServiceManagerHealthProtocol";
// The operator's requests, which change nothing.
inline constexpr char kORBServiceManagerOperatorProtocol[] = "ORBServiceManagerOperatorProtocol";

// Puts all of them into the table that `main` fills.
void addServiceManagerProtocols(platform::ProtocolTable& protocols);
