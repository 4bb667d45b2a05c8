#pragma once

#include <chrono>
#include <expected>
#include <memory>
#include <string>
#include <string_view>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

// The names of the service manager's servers.
inline constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
inline constexpr char kUserInterfaceServer[] = "com.vantor.servicemanager.userinterface.server";
inline constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";

// Why something could not be done: what to say, what to do about it included, and what to end with.
struct Refusal {
  int exitStatus;
  std::string text;

  bool operator==(const Refusal&) const = default;
};

template <typename T>
using Answer = std::expected<T, Refusal>;

// Speaks to one server, the service manager's unless told otherwise, and says why it can't. Belongs
// to the loop's thread; every call blocks.
class DaemonClient {
 public:
  // How long the service manager may take to answer what asks for no work. It serves nobody while
  // it waits for a job that begins or ends.
  static constexpr platform::Duration kPatience = std::chrono::seconds(60);

  // Of the program, all of it outlives this.
  struct Environment {
    VantorDistantObject::Environment objects;
    platform::PeerTransport& transport;
    platform::NamedConnections::PathOfName path;
    std::string root;  // of the platform, for texts
  };

  // Who serves there, for texts.
  struct Who {
    std::string name;
    std::string whereToLook;  // the arguments with which this tool tells whether it runs
    std::string whySilent;    // why one that is there may not answer
  };

  DaemonClient(const Environment& environment, std::string server, std::string protocol,
               Who who = {.name = "the service manager",
                          .whereToLook = "jobs show com.vantor.servicemanager",
                          .whySilent = "it may be waiting for a job to end"});

  // Finds the server and authenticates both sides; for kPatience at most each. To be called first.
  Answer<void> connect();

  // Sends a message of the protocol. Waits for its answer for `patience` at most; of a one-way
  // message there is none.
  Answer<platform::Value> ask(std::string_view selector, platform::Array arguments = {},
                              platform::Duration patience = kPatience);

  // Null before connect().
  const std::shared_ptr<platform::NSConnection>& connection() const { return client_.connection(); }

 private:
  Answer<std::shared_ptr<platform::NSConnection>> lookUp();
  Refusal refusal(const platform::PeerConnectFailure& failure) const;
  Refusal refusal(const platform::NSException& exception, platform::Duration patience) const;
  Refusal nobodyThere() const;

  const Environment environment_;
  const std::string server_;
  const std::string protocol_;
  const Who who_;
  VantorDistantObject client_;
};
