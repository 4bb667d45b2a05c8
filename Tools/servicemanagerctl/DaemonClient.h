#pragma once

#include <chrono>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

// The names of the service manager's servers.
inline constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
inline constexpr char kUserInterfaceServer[] = "com.vantor.servicemanager.userinterface.server";
inline constexpr char kOperatorServer[] = "com.vantor.servicemanager.operator.server";

// Why a command failed: the message, with advice, and the exit status.
struct Refusal {
  int exitStatus;
  std::string text;

  bool operator==(const Refusal&) const = default;
};

template <typename T>
using Answer = std::expected<T, Refusal>;

// Why the kernel or this tool forbids a connection with `server`, and what to do; nothing if
// another failure is the reason.
std::optional<Refusal> refusalOfPermission(const platform::PeerConnectFailure& failure,
                                           std::string_view server,
                                           const std::optional<std::string>& group, bool isRoot);

// A client of one server, the service manager's by default, that explains each failure. Belongs to
// the loop's thread; every call blocks.
class DaemonClient {
 public:
  // How long the service manager may take to answer a question that needs no work.
  static constexpr platform::Duration kTimeOut = std::chrono::seconds(60);

  // Belongs to the program; all of it outlives this.
  struct Environment {
    VantorDistantObject::Environment objects;
    platform::PeerTransport& transport;
    platform::NamedConnections::PlaceOfName place;
    std::string root;                       // of the platform, for texts
    std::optional<std::string> group = {};  // of the product, for advice
    bool isRoot = false;                    // this user
    // For commands that read the log.
    const platform::PlatformConfiguration* configuration = nullptr;
  };

  // How to name the server in texts.
  struct ServerTexts {
    std::string name;
    std::string statusCommand;  // the arguments with which this tool shows whether it runs
    std::string whyNoAnswer;    // why it may be there and not answer
  };

  DaemonClient(const Environment& environment, std::string server, std::string protocol,
               ServerTexts texts = {.name = "the service manager",
                                    .statusCommand = "jobs show com.vantor.servicemanager",
                                    .whyNoAnswer = "it may be waiting for a job to end"});

  // Finds the server and authenticates both sides, within kTimeOut each. Call this first.
  Answer<void> connect();

  // Sends a message of the protocol and waits for its answer for `timeOut` at most. A one-way
  // message has no answer.
  Answer<platform::Value> ask(std::string_view selector, platform::Array arguments = {},
                              platform::Duration timeOut = kTimeOut);

  // Null before connect().
  const std::shared_ptr<platform::NSConnection>& connection() const { return client_.connection(); }

 private:
  Answer<std::shared_ptr<platform::NSConnection>> lookUp();
  Refusal refusal(const platform::PeerConnectFailure& failure) const;
  Refusal refusal(const platform::NSException& exception, platform::Duration timeOut) const;
  Refusal nobodyThere() const;

  const Environment environment_;
  const std::string server_;
  const std::string protocol_;
  const ServerTexts texts_;
  VantorDistantObject client_;
};
