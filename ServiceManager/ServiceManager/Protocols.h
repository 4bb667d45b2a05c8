#pragma once

#include "Platform/Messages/Protocol.h"

// The protocols that the daemon speaks, as it names them when it asks for them.

// What the installer may ask.
inline constexpr char kORBServiceManagerInstallerProtocol[] = "ORBServiceManagerInstallerProtocol";
// What the user interface may ask, and what its clients are told.
inline constexpr char kORBServiceManagerUserInterfaceProtocol[] =
    "ORBServiceManagerUserInterfaceProtocol";
inline constexpr char kORBServiceManagerUserInterfaceDelegateProtocol[] =
    "ORBServiceManagerUserInterfaceDelegateProtocol";
// Hands out the per-run secret.
inline constexpr char kServiceManagerAuthProtocol[] = "ServiceManagerAuthProtocol";
// What the configuration server tells of itself.
inline constexpr char kORBServiceManagerConfigurationServerStatusProtocol[] =
    "ORBServiceManagerConfigurationServerStatusProtocol";
// What the registry of XPC endpoints answers, and the executable-information service. A two-way
// method's last argument stands for its reply.
inline constexpr char kORBServiceManagerXPCInterfaceProtocol[] =
    "ORBServiceManagerXPCInterfaceProtocol";
inline constexpr char kORBExecutableInfoProtocol[] = "ORBExecutableInfoProtocol";

// The names under which they are found: the first is a Mach service, the second is registered with
// the first.
inline constexpr char kEndpointRegistryService[] = "com.vantor.common.servicemanager";
inline constexpr char kExecInfoEndpoint[] = "com.vantor.xpc.name.execinfohandler";
// Asks whoever owns a name, which stands under that key of the user info, to register it.
inline constexpr char kEndpointRequestNotification[] =
    "com.vantor.servicemanager.xpc.notification.registration";
inline constexpr char kEndpointRequestName[] = "requestName";

// What the product's health reporter may ask.
inline constexpr char kServiceManagerHealthProtocol[] = "ServiceManagerHealthProtocol";
// What the operator may ask; nothing changes by it.
inline constexpr char kORBServiceManagerOperatorProtocol[] = "ORBServiceManagerOperatorProtocol";

// Puts all of them into the table that `main` fills.
void addServiceManagerProtocols(platform::ProtocolTable& protocols);
