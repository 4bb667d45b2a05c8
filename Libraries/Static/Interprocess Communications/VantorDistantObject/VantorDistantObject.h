#pragma once

#include <atomic>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Time.h"

// A message on its way, and what came back.
struct NSInvocation {
  std::string selector;
  platform::Array arguments = {};
  platform::Value returnValue = {};  // nil until it succeeds, and where it fails
};

// The client's handle on a named server: stands for its root object, looks the server up when a
// message needs it, finds it again after it died or restarted, and, if wanted, repeats what failed.
// No exception of the server's or of the connection's ever reaches the caller: recentException()
// holds the last one.
//
// An object of a protocol that nobody knows, or without a server name, deliberately exists too: it
// is not set up, has no server name, observes nothing, and every message to it fails.
//
// Belongs to the run loop's thread. A message blocks for the time-outs and, repeated, up to five of
// them and two seconds of pauses.
class VantorDistantObject : public platform::NSConnectionDelegate {
 public:
  // What it works with; all of it outlives the object.
  struct Environment {
    platform::RunLoop& loop;
    platform::NamedConnections& connections;
    platform::DistributedNotificationCenter& distributedCenter;
    platform::NotificationCenter& center;
    const platform::ProtocolTable& protocols;
    const platform::SystemInformation& system;
  };

  // The reply and request time-out of each new connection, in seconds, for every object of the
  // process.
  static std::atomic<double> gTimeoutInterval;
  static constexpr int kNumberOfAttemptsToInvoke = 5;
  static constexpr platform::Duration kDelayBetweenAttempts = std::chrono::milliseconds(500);

  // An object that is not set up.
  explicit VantorDistantObject(const Environment& environment);

  VantorDistantObject(const Environment& environment, std::optional<std::string> name,
                      std::optional<std::string> protocolName,
                      std::optional<std::string> startUpNotificationName);

  // Raises gTimeoutInterval to 300 seconds, whatever the flag says: the servers that are worth a
  // repetition are slow ones, and the system's other clients wait for them, too.
  VantorDistantObject(const Environment& environment, std::optional<std::string> name,
                      std::optional<std::string> protocolName,
                      std::optional<std::string> startUpNotificationName,
                      bool withRetryAfterException);

  VantorDistantObject(const VantorDistantObject&) = delete;
  VantorDistantObject& operator=(const VantorDistantObject&) = delete;
  ~VantorDistantObject() override;

  // The server's root object; connects where it is not known, and is null where that fails.
  std::shared_ptr<platform::NSDistantObject> rootProxy();
  void setRootProxy(std::shared_ptr<platform::NSDistantObject> proxy);
  // Whether rootProxy() yields one.
  bool isProxyValid();

  // The server has announced its start: the next message looks it up again.
  virtual void serverDidStart(const platform::DistributedNotification& notification);
  void connectionDidDieNotification(const platform::Notification& notification);

  // Tells of the remote protocol without asking the server. Made anew at each call.
  platform::NSProtocolChecker poser() const;
  // Whether this object answers the selector itself or the remote protocol has it.
  bool respondsToSelector(std::string_view selector) const;
  bool conformsToProtocol(std::string_view name) const;
  // A subclass adds its own methods.
  virtual const platform::MethodDescription* methodSignatureForSelector(
      std::string_view selector) const;

  // Sends the message to the server. Its failure is in recentException(), and the return value is
  // nil then. Fails itself only for a selector that the remote protocol does not have.
  std::expected<void, platform::NSException> forwardInvocation(NSInvocation& invocation);

  // The same for a message put together here; its return value.
  platform::MessageResult sendMessage(std::string_view selector, platform::Array arguments = {});

  // The same for who only looks: one attempt, which takes `patience` at most and whose failure is
  // returned. Nothing of it is logged here or left behind: where there is no connection yet it has
  // one of its own, a server that is silent is not remembered as such, and one that is known to be
  // is not waited for.
  platform::MessageResult lookWithMessage(std::string_view selector,
                                          const platform::Array& arguments,
                                          platform::Duration patience);

  bool connection(platform::NSConnection& parent,
                  platform::NSConnection& shouldMakeNewConnection) override;
  platform::Data authenticationDataForComponents(const platform::Array& components) override;
  bool authenticateComponents(const platform::Array& components,
                              const platform::Data& withData) override;

  const std::optional<std::string>& protocolName() const { return remoteProtocolString_; }
  const std::optional<std::string>& remoteServerName() const { return remoteServerName_; }
  const std::optional<std::string>& serverDidStartNotificationName() const {
    return serverDidStartNotificationName_;
  }
  const std::shared_ptr<platform::NSConnection>& connection() const { return connection_; }
  void setConnection(std::shared_ptr<platform::NSConnection> connection);
  const std::optional<platform::NSException>& recentException() const { return recentException_; }
  void setRecentException(std::optional<platform::NSException> exception);
  // Whether the connection stays open between messages; it does unless told otherwise.
  bool shouldPersistConnection() const { return persistConnection_; }
  void setPersistConnection(bool persist) { persistConnection_ = persist; }
  bool retryAfterException() const { return retryAfterException_; }

 private:
  void setUp(std::optional<std::string> name, std::optional<std::string> protocolName,
             std::optional<std::string> startUpNotificationName);
  void invalidateConnection();
  bool isSetUp() const { return remoteServerName_.has_value(); }
  platform::MessageResult attempt(const NSInvocation& invocation);
  platform::MessageResult lookByOwnConnection(std::string_view selector,
                                              const platform::Array& arguments,
                                              platform::Instant deadline);
  // Tries, and repeats where that is wanted.
  void deliver(NSInvocation& invocation);

  const Environment environment_;
  const platform::Protocol* remoteProtocol_ = nullptr;
  // Shared with whoever else keeps the proxy or the connection.
  std::shared_ptr<platform::NSDistantObject> rootProxy_;
  std::optional<std::string> remoteServerName_;
  std::optional<std::string> remoteProtocolString_;
  std::optional<std::string> serverDidStartNotificationName_;
  bool persistConnection_ = false;
  bool retryAfterException_ = false;
  std::shared_ptr<platform::NSConnection> connection_;
  std::optional<platform::NSException> recentException_;
  std::unique_ptr<platform::DistributedNotificationCenter::Observation> startObservation_;
  platform::NotificationCenter::Observation deathObservation_;
};
