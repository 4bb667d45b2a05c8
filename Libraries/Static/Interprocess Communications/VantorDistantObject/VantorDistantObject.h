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

// A message and its result.
struct NSInvocation {
  std::string selector;
  platform::Array arguments = {};
  platform::Value returnValue = {};  // nil until the message succeeds, and if it fails
};

// The client's proxy for a named server's root object. It looks the server up when a message needs
// it, finds it again after a restart, and, on request, retries failed messages. No exception of the
// server or the connection ever reaches the caller: recentException() holds the last one.
//
// An object with an unknown protocol or without a server name deliberately exists too: it is not
// set up, has no server name, observes nothing, and every message to it fails.
//
// Belongs to the run loop's thread. A message blocks for the time-outs; with retries, for up to
// five of them and two seconds of pauses.
class VantorDistantObject : public platform::NSConnectionDelegate {
 public:
  // All of it outlives the object.
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

  // Raises gTimeoutInterval to 300 seconds, whatever the flag is: servers that are worth a retry
  // are slow, and the process's other clients wait for them, too.
  VantorDistantObject(const Environment& environment, std::optional<std::string> name,
                      std::optional<std::string> protocolName,
                      std::optional<std::string> startUpNotificationName,
                      bool withRetryAfterException);

  VantorDistantObject(const VantorDistantObject&) = delete;
  VantorDistantObject& operator=(const VantorDistantObject&) = delete;
  ~VantorDistantObject() override;

  // The server's root object; connects if necessary, and is null if that fails.
  std::shared_ptr<platform::NSDistantObject> rootProxy();
  void setRootProxy(std::shared_ptr<platform::NSDistantObject> proxy);
  // Whether rootProxy() returns a proxy.
  bool isProxyValid();

  // The server has announced its start: the next message looks it up again.
  virtual void serverDidStart(const platform::DistributedNotification& notification);
  void connectionDidDieNotification(const platform::Notification& notification);

  // Describes the remote protocol without asking the server. Each call makes a new one.
  platform::NSProtocolChecker poser() const;
  // Whether this object answers the selector itself or the remote protocol has it.
  bool respondsToSelector(std::string_view selector) const;
  bool conformsToProtocol(std::string_view name) const;
  // Subclasses add their own methods.
  virtual const platform::MethodDescription* methodSignatureForSelector(
      std::string_view selector) const;

  // Sends the message to the server. If that fails, the exception is in recentException() and the
  // return value is nil. Returns an error only for a selector that the remote protocol lacks.
  std::expected<void, platform::NSException> forwardInvocation(NSInvocation& invocation);

  // The same for a message made here; returns its return value.
  platform::MessageResult sendMessage(std::string_view selector, platform::Array arguments = {});

  // Whether the server has not answered lately, and is not asked for that reason.
  bool isRemoteServerHung() const;

  // A probe: one attempt of `timeOut` at most, whose failure is returned. It logs nothing and
  // changes nothing: without a connection it uses its own for this message, a server that does not
  // answer is not remembered as hung, and a server that is known to hang is not waited for.
  platform::MessageResult probeWithMessage(std::string_view selector,
                                           const platform::Array& arguments,
                                           platform::Duration timeOut);

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
  // Whether the connection stays open between messages; the default is yes.
  bool shouldPersistConnection() const { return persistConnection_; }
  void setPersistConnection(bool persist) { persistConnection_ = persist; }
  bool retryAfterException() const { return retryAfterException_; }

 private:
  void setUp(std::optional<std::string> name, std::optional<std::string> protocolName,
             std::optional<std::string> startUpNotificationName);
  void invalidateConnection();
  bool isSetUp() const { return remoteServerName_.has_value(); }
  platform::MessageResult attempt(const NSInvocation& invocation);
  platform::MessageResult probeByOwnConnection(std::string_view selector,
                                               const platform::Array& arguments,
                                               platform::Instant deadline);
  // Sends, and retries if that is enabled.
  void deliver(NSInvocation& invocation);

  const Environment environment_;
  const platform::Protocol* remoteProtocol_ = nullptr;
  // Shared with all that keep the proxy or the connection.
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
