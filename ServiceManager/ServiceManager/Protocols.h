#pragma once

#include "Platform/Protocol.h"

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

// What the product's health reporter may ask.
inline constexpr char kServiceManagerHealthProtocol[] = "ServiceManagerHealthProtocol";
// What the operator may ask; nothing changes by it.
inline constexpr char kORBServiceManagerOperatorProtocol[] = "ORBServiceManagerOperatorProtocol";

// Puts all of them into the table that `main` fills.
void addServiceManagerProtocols(platform::ProtocolTable& protocols);
