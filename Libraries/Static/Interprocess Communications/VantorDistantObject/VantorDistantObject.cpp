#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"

#include <algorithm>
#include <source_location>
#include <utility>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/TokenComparison.h"
#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Logger/Logger.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Texts/StringFormat.h"

using platform::Array;
using platform::Data;
using platform::DistributedNotification;
using platform::Duration;
using platform::Instant;
using platform::MessageResult;
using platform::MethodDescription;
using platform::Notification;
using platform::NSConnection;
using platform::NSDistantObject;
using platform::NSException;
using platform::NSProtocolChecker;
using platform::Protocol;
using platform::stringWithFormat;
using platform::Value;

namespace {

constexpr double kSlowServerTimeout = 300.0;
constexpr char kNilProxyException[] = "VantorNilProxyException";

// The methods of the class itself, for respondsToSelector: and methodSignatureForSelector:. The
// language can't list them. No program of ours asks, but both operations belong to the class.
const Protocol& ownMethods() {
  static const Protocol methods("VantorDistantObject",
                                {{"init"},
                                 {"initWithName:protocolName:startUpNotificationName:"},
                                 {"initWithName:protocolName:startUpNotificationName:"
                                  "withRetryAfterException:"},
                                 {"rootProxy"},
                                 {"setRootProxy:"},
                                 {"isProxyValid"},
                                 {"serverDidStart:"},
                                 {"connectionDidDieNotification:"},
                                 {"poser"},
                                 {"respondsToSelector:"},
                                 {"conformsToProtocol:"},
                                 {"methodSignatureForSelector:"},
                                 {"forwardInvocation:"},
                                 {"connection:shouldMakeNewConnection:"},
                                 {"authenticationDataForComponents:"},
                                 {"authenticateComponents:withData:"},
                                 {"protocolName"},
                                 {"remoteServerName"},
                                 {"serverDidStartNotificationName"},
                                 {"connection"},
                                 {"setConnection:"},
                                 {"recentException"},
                                 {"setRecentException:"},
                                 {"shouldPersistConnection"},
                                 {"setPersistConnection:"},
                                 {"retryAfterException"}});
  return methods;
}

void logNoConnection(const std::source_location& where = std::source_location::current()) {
  vantorlogger_line(platform::ASL_LEVEL_DEBUG,
                    "Unable to establish a valid connection to the vended object", where);
}

}  // namespace

std::atomic<double> VantorDistantObject::gTimeoutInterval = 10.0;

VantorDistantObject::VantorDistantObject(const Environment& environment)
    : VantorDistantObject(environment, std::nullopt, std::nullopt, std::nullopt) {}

VantorDistantObject::VantorDistantObject(const Environment& environment,
                                         std::optional<std::string> name,
                                         std::optional<std::string> protocolName,
                                         std::optional<std::string> startUpNotificationName)
    : environment_(environment) {
  setUp(std::move(name), std::move(protocolName), std::move(startUpNotificationName));
}

VantorDistantObject::VantorDistantObject(const Environment& environment,
                                         std::optional<std::string> name,
                                         std::optional<std::string> protocolName,
                                         std::optional<std::string> startUpNotificationName,
                                         bool withRetryAfterException)
    : environment_(environment), retryAfterException_(withRetryAfterException) {
  gTimeoutInterval = kSlowServerTimeout;
  setUp(std::move(name), std::move(protocolName), std::move(startUpNotificationName));
}

void VantorDistantObject::setUp(std::optional<std::string> name,
                                std::optional<std::string> protocolName,
                                std::optional<std::string> startUpNotificationName) {
  if (!protocolName || !name) return;
  remoteProtocol_ = environment_.protocols.find(*protocolName);
  if (remoteProtocol_ == nullptr) return;
  vantorlogger_open("Vantor Distant Object", "com.vantor.hostagent.libVantorDistantObject");
  remoteServerName_ = std::move(name);
  remoteProtocolString_ = std::move(protocolName);
  serverDidStartNotificationName_ = std::move(startUpNotificationName);
  persistConnection_ = true;
  if (serverDidStartNotificationName_) {
    startObservation_ = environment_.distributedCenter.addObserver(
        serverDidStartNotificationName_, std::nullopt,
        [this](const DistributedNotification& notification) { serverDidStart(notification); });
  }
  deathObservation_ = environment_.center.addObserver(
      platform::kNSConnectionDidDieNotification, nullptr,
      [this](const Notification& notification) { connectionDidDieNotification(notification); });
}

VantorDistantObject::~VantorDistantObject() {
  startObservation_.reset();
  deathObservation_ = {};
  setRootProxy(nullptr);
  setConnection(nullptr);
  if (isSetUp()) vantorlogger_close();
}

std::shared_ptr<NSDistantObject> VantorDistantObject::rootProxy() {
  if (rootProxy_) return rootProxy_;
  invalidateConnection();
  if (remoteServerName_)
    setConnection(environment_.connections.connectionWithRegisteredName(*remoteServerName_));
  if (!connection_) {
    logNoConnection();
    return nullptr;
  }
  const auto timeout =
      std::chrono::duration_cast<Duration>(std::chrono::duration<double>(gTimeoutInterval));
  connection_->setReplyTimeout(timeout);
  connection_->setRequestTimeout(timeout);
  connection_->setDelegate(this);
  auto proxy = connection_->rootProxy();
  if (!proxy) {
    logNoConnection();
    invalidateConnection();
    return rootProxy_;
  }
  (*proxy)->setProtocolForProxy(remoteProtocol_);
  setRootProxy(std::move(*proxy));
  return rootProxy_;
}

void VantorDistantObject::setRootProxy(std::shared_ptr<NSDistantObject> proxy) {
  rootProxy_ = std::move(proxy);
}

void VantorDistantObject::setConnection(std::shared_ptr<NSConnection> connection) {
  const auto old = std::exchange(connection_, std::move(connection));
  // Another owner may keep it longer than this object lives.
  if (old && old != connection_ && old->delegate() == this) old->setDelegate(nullptr);
}

void VantorDistantObject::setRecentException(std::optional<NSException> exception) {
  recentException_ = std::move(exception);
}

// Clear the member first: the connection's death notice calls this object back.
void VantorDistantObject::invalidateConnection() {
  const auto old = connection_;
  setConnection(nullptr);
  if (old) old->invalidate();
}

bool VantorDistantObject::isProxyValid() { return rootProxy() != nullptr; }

void VantorDistantObject::serverDidStart(const DistributedNotification& /*notification*/) {
  setRootProxy(nullptr);
  setConnection(nullptr);
  if (remoteServerName_) environment_.connections.serverDidStart(*remoteServerName_);
}

void VantorDistantObject::connectionDidDieNotification(const Notification& notification) {
  if (!connection_ || notification.object != connection_.get()) return;
  setRootProxy(nullptr);
  setConnection(nullptr);
}

NSProtocolChecker VantorDistantObject::poser() const { return {nullptr, remoteProtocol_}; }

bool VantorDistantObject::respondsToSelector(std::string_view selector) const {
  return methodSignatureForSelector(selector) != nullptr;
}

bool VantorDistantObject::conformsToProtocol(std::string_view name) const {
  return name == "NSObject" || name == "NSConnectionDelegate" || name == remoteProtocolString_;
}

const MethodDescription* VantorDistantObject::methodSignatureForSelector(
    std::string_view selector) const {
  if (const MethodDescription* own = ownMethods().method(selector)) return own;
  return poser().methodSignatureForSelector(selector);
}

MessageResult VantorDistantObject::attempt(const NSInvocation& invocation) {
  const auto proxy = rootProxy();
  if (!proxy) return std::unexpected(NSException{kNilProxyException, "", {}});
  return proxy->sendMessage(invocation.selector, invocation.arguments);
}

void VantorDistantObject::deliver(NSInvocation& invocation) {
  for (int number = 1;; ++number) {
    auto result = attempt(invocation);
    if (result) {
      invocation.returnValue = std::move(*result);
      return;
    }
    vantorlogger_line(platform::ASL_LEVEL_ERR,
                      stringWithFormat("An exception was encountered while messaging the server: "
                                       "%@. Retrying: %d attempt(s)",
                                       result.error().name, number));
    setRootProxy(nullptr);
    if (!retryAfterException_ || number == kNumberOfAttemptsToInvoke) {
      setRecentException(std::move(result.error()));
      return;
    }
    environment_.loop.sleepFor(kDelayBetweenAttempts);
  }
}

std::expected<void, NSException> VantorDistantObject::forwardInvocation(NSInvocation& invocation) {
  std::expected<void, NSException> outcome;
  setRecentException(std::nullopt);
  invocation.returnValue = {};
  // An object that is not set up has no protocol to check; its messages fail for lack of a server.
  if (isSetUp() && !poser().respondsToSelector(invocation.selector)) {
    outcome = std::unexpected(NSException{
        platform::kNSInvalidArgumentException,
        stringWithFormat("-[VantorDistantObject %@]: unrecognized selector", invocation.selector),
        {}});
  } else {
    deliver(invocation);
  }
  if (!shouldPersistConnection()) {
    invalidateConnection();
    setRootProxy(nullptr);
  }
  return outcome;
}

MessageResult VantorDistantObject::sendMessage(std::string_view selector, Array arguments) {
  NSInvocation invocation{std::string(selector), std::move(arguments), {}};
  if (auto forwarded = forwardInvocation(invocation); !forwarded)
    return std::unexpected(std::move(forwarded.error()));
  return std::move(invocation.returnValue);
}

MessageResult VantorDistantObject::probeWithMessage(std::string_view selector,
                                                    const Array& arguments, Duration timeOut) {
  const auto proxy = rootProxy_;
  if (!proxy) return probeByOwnConnection(selector, arguments, environment_.loop.now() + timeOut);
  const auto connection = proxy->connectionForProxy();
  const Duration usual = connection->replyTimeout();
  connection->setReplyTimeout(std::min(timeOut, usual));
  MessageResult result = proxy->sendMessage(selector, arguments);
  connection->setReplyTimeout(usual);
  return result;
}

MessageResult VantorDistantObject::probeByOwnConnection(std::string_view selector,
                                                        const Array& arguments, Instant deadline) {
  const auto left = [&] { return std::max(deadline - environment_.loop.now(), Duration::zero()); };
  const auto connection =
      remoteServerName_ ? environment_.connections.probeRegisteredName(*remoteServerName_, left())
                        : nullptr;
  if (!connection)
    return std::unexpected(NSException{platform::kNSInvalidSendPortException, "", {}});
  connection->setDelegate(this);
  connection->setRequestTimeout(left());
  const auto proxy = connection->rootProxy();
  MessageResult result;
  if (proxy) {
    (*proxy)->setProtocolForProxy(remoteProtocol_);
    connection->setReplyTimeout(left());
    result = (*proxy)->sendMessage(selector, arguments);
  } else {
    result = std::unexpected(proxy.error());
  }
  connection->setDelegate(nullptr);
  connection->invalidate();
  return result;
}

bool VantorDistantObject::isRemoteServerHung() const {
  return remoteServerName_ && environment_.connections.isHung(*remoteServerName_);
}

bool VantorDistantObject::connection(NSConnection& /*parent*/,
                                     NSConnection& /*shouldMakeNewConnection*/) {
  return false;
}

Data VantorDistantObject::authenticationDataForComponents(const Array& /*components*/) {
  return systemProfileData(environment_.system);
}

bool VantorDistantObject::authenticateComponents(const Array& /*components*/,
                                                 const Data& withData) {
  return tokensAreEqual(withData, clientProfileData(environment_.system));
}
