#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"

#include <algorithm>
#include <utility>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/TokenComparison.h"
#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/SystemFacts/CurrentUser.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/ServiceManager/RequestLines.h"

using namespace platform;

namespace {

Value valueOf(const std::shared_ptr<const NSXPCListenerEndpoint>& endpoint) {
  return Value(std::shared_ptr<const RemoteObject>(endpoint));
}

bool canBeRegistered(const std::optional<std::string>& name) {
  return name && name->size() <= ORBServiceManagerXPCHandler::kMaxNameBytes;
}

// The name as the log shows it, cut off: a client must not fill the log.
std::optional<std::string> shown(const std::optional<std::string>& name) {
  if (!name || canBeRegistered(name)) return name;
  return name->substr(0, ORBServiceManagerXPCHandler::kMaxNameBytes) + "...";
}

bool isPrivileged(std::uint32_t user) { return user == 0 || user == currentEffectiveUserId(); }

}  // namespace

ORBServiceManagerXPCHandler::ORBServiceManagerXPCHandler(
    RunLoop& mainLoop, const SystemInformation& system,
    DistributedNotificationCenter& distributedCenter, const ProtocolTable& protocols)
    : mainLoop_(mainLoop),
      system_(system),
      distributedCenter_(distributedCenter),
      protocols_(protocols),
      threadOfLogger_(mach_thread_self()) {
  vantorlogger2_open(kClassName, threadOfLogger_);
}

// Close the log of the thread that opened it: the last connection may release this on another
// thread.
ORBServiceManagerXPCHandler::~ORBServiceManagerXPCHandler() {
  vantorlogger2_close(threadOfLogger_);
}

bool ORBServiceManagerXPCHandler::listener(
    NSXPCListener& /*listener*/,
    const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  NSXPCConnection& connection = *shouldAcceptNewConnection;
  logNewConnection(connection);
  connection.setExportedInterface(protocols_.find(kORBServiceManagerXPCInterfaceProtocol));
  connection.setExportedObject(shared_from_this());
  connection.setServesAtOnce();  // Every request is a lookup in a table.
  connection.resume();
  return true;
}

void ORBServiceManagerXPCHandler::receiveMessage(std::string_view selector, const Array& arguments,
                                                 XPCReply reply) {
  const auto textAt = [&](std::size_t index) {
    const std::string* text = arguments.at(index).string();
    return text ? std::optional(*text) : std::nullopt;
  };
  if (selector == "signatureWithReply:") {
    return signature([&](const Data& signature) { reply({Value(signature)}); });
  }
  if (selector == "registerXPCListenerEndpoint:forPasskey:withName:withReply:") {
    return registerXPCListenerEndpoint(
        endpointIn(arguments.at(0)), arguments.at(1), textAt(2),
        [&](bool success, const std::optional<std::string>& message) {
          reply({Value(success), message ? Value(*message) : Value()});
        });
  }
  if (selector == "xpcListenerEndpointForPasskey:withName:withReply:") {
    return xpcListenerEndpoint(arguments.at(0), textAt(1),
                               [&](const Endpoint& endpoint) { reply({valueOf(endpoint)}); });
  }
}

void ORBServiceManagerXPCHandler::signature(SignatureReply withReply) {
  withReply(clientProfileData(system_));
}

bool ORBServiceManagerXPCHandler::validatePasskey(const Value& passkey) const {
  const Data* data = passkey.data();
  if (data && tokensAreEqual(*data, systemProfileData(system_))) return true;
  logRequest(ASL_LEVEL_ERR, "Invalid profile detected.");
  return false;
}

void ORBServiceManagerXPCHandler::registerXPCListenerEndpoint(
    const Endpoint& endpoint, const Value& forPasskey, const std::optional<std::string>& withName,
    RegisterReply withReply) {
  if (!validatePasskey(forPasskey)) {
    logRequest(ASL_LEVEL_ERR, "Received invalid passkey for registration.");
    return withReply(false, "Invalid passkey for the registration.");
  }
  logRequest(ASL_LEVEL_DEBUG,
             stringWithFormat("Received register request for '%@'.", shown(withName)));
  const auto refusal = registerWithinLimits(endpoint, withName);
  withReply(!refusal, refusal);
}

void ORBServiceManagerXPCHandler::xpcListenerEndpoint(const Value& forPasskey,
                                                      const std::optional<std::string>& withName,
                                                      EndpointReply withReply) {
  if (!validatePasskey(forPasskey)) {
    logRequest(ASL_LEVEL_ERR, "Received invalid passkey for listener endpoint request.");
    return;
  }
  const bool mayExist = canBeRegistered(withName);
  const Endpoint endpoint = mayExist ? xpcListenerEndpointByName(*withName) : nullptr;
  logRequest(ASL_LEVEL_DEBUG,
             stringWithFormat("Received listenerendpoint request for '%@'", shown(withName)));
  if (!endpoint) {
    logRequest(ASL_LEVEL_DEBUG,
               stringWithFormat("Cannot find listener for endpoint '%@'.", shown(withName)));
    if (mayExist) sendNotificationToRegisterForName(*withName);
  }
  withReply(endpoint);
}

void ORBServiceManagerXPCHandler::sendNotificationToRegisterForName(const std::string& name) {
  logRequest(ASL_LEVEL_DEBUG,
             stringWithFormat("Send a registration request notification for '%@'.", name));
  {
    const std::uint32_t user = askingUser();
    const std::lock_guard lock(mutex_);
    if (std::ranges::find(wantedNames_, name, &WantedName::name) != wantedNames_.end()) return;
    const auto ofUser =
        static_cast<std::size_t>(std::ranges::count(wantedNames_, user, &WantedName::user));
    if (wantedNames_.size() == kMaxWantedNames ||
        (!isPrivileged(user) && ofUser == kMaxWantedNamesOfUser)) {
      ++leftOut_;
      return;
    }
    wantedNames_.push_back({name, user});
    if (wantedNames_.size() > 1) return;  // The post of the first one serves all.
  }
  mainLoop_.post([handler = weak_from_this()] {
    if (const auto alive = handler.lock()) alive->askForWantedNames();
  });
}

void ORBServiceManagerXPCHandler::askForWantedNames() {
  std::vector<WantedName> wanted;
  std::size_t leftOut = 0;
  {
    const std::lock_guard lock(mutex_);
    wanted.swap(wantedNames_);
    const Instant now = mainLoop_.now();
    if (leftOut_ > 0 && (!toldLeftOut_ || now - *toldLeftOut_ >= kLeftOutInterval)) {
      toldLeftOut_ = now;
      std::swap(leftOut, leftOut_);
    }
  }
  for (const WantedName& one : wanted) {
    distributedCenter_.postNotificationName(kEndpointRequestNotification, std::nullopt,
                                            Dictionary{{kEndpointRequestName, one.name}},
                                            NSNotificationPosting::kPostToAllSessions);
  }
  if (leftOut == 0) return;
  vantorlogger2_line(
      ASL_LEVEL_WARNING,
      stringWithFormat("%lu registration requests were left out, because %lu others waited.",
                       static_cast<unsigned long>(leftOut),
                       static_cast<unsigned long>(kMaxWantedNames)));
}

// The user of the request that this thread serves: our own if the daemon itself asks.
std::uint32_t ORBServiceManagerXPCHandler::askingUser() {
  const NSXPCConnection* const connection = NSXPCConnection::currentConnection();
  return connection ? connection->effectiveUserIdentifier() : currentEffectiveUserId();
}

std::optional<std::string> ORBServiceManagerXPCHandler::registerWithinLimits(
    const Endpoint& endpoint, const std::optional<std::string>& name) {
  if (!endpoint) return "There is no endpoint to register.";
  if (!name) return "There is no name to register it under.";
  if (!canBeRegistered(name)) return "The name is too long.";
  const std::uint32_t user = askingUser();
  Entry replaced{endpoint, user};  // It ends after the lock: closing an endpoint is a system call.
  std::vector<Endpoint> dead;
  const std::lock_guard lock(mutex_);
  const auto found = endpointListeners_.find(*name);
  if (found != endpointListeners_.end() && found->second.user == user) {
    std::swap(found->second, replaced);
    return std::nullopt;
  }
  if (found != endpointListeners_.end() && !isPrivileged(user) &&
      found->second.endpoint->hasListener()) {
    return "The name belongs to another user.";
  }
  if (!hasRoom(user, found == endpointListeners_.end())) dead = giveUpDeadNames(*name);
  if (!hasRoom(user, found == endpointListeners_.end())) return "Too many names are registered.";
  std::swap(endpointListeners_[*name], replaced);
  return std::nullopt;
}

bool ORBServiceManagerXPCHandler::hasRoom(std::uint32_t user, bool isNewName) const {
  if (isNewName && endpointListeners_.size() >= kMaxNames) return false;
  if (isPrivileged(user)) return true;
  std::size_t ofUser = 0;
  std::size_t ofOrdinaryUsers = 0;
  for (const auto& [name, entry] : endpointListeners_) {
    if (entry.user == user) ++ofUser;
    if (!isPrivileged(entry.user)) ++ofOrdinaryUsers;
  }
  return ofUser < kMaxNamesOfUser && ofOrdinaryUsers < kMaxNamesOfOrdinaryUsers;
}

std::vector<ORBServiceManagerXPCHandler::Endpoint> ORBServiceManagerXPCHandler::giveUpDeadNames(
    const std::string& except) {
  std::vector<Endpoint> dead;
  const Instant now = mainLoop_.now();
  if (searched_ && now - *searched_ < kSearchInterval) return dead;
  searched_ = now;
  for (auto entry = endpointListeners_.begin(); entry != endpointListeners_.end();) {
    if (entry->first == except || entry->second.endpoint->hasListener()) {
      ++entry;
    } else {
      dead.push_back(std::move(entry->second.endpoint));
      entry = endpointListeners_.erase(entry);
    }
  }
  return dead;
}

void ORBServiceManagerXPCHandler::registerXPCListenerEndpoint(const Endpoint& endpoint,
                                                              const std::string& withName) {
  Entry replaced{endpoint, currentEffectiveUserId()};  // It ends after the lock.
  const std::lock_guard lock(mutex_);
  std::swap(endpointListeners_[withName], replaced);
}

ORBServiceManagerXPCHandler::Endpoint ORBServiceManagerXPCHandler::xpcListenerEndpointByName(
    const std::string& name) const {
  Endpoint found;
  {
    const std::lock_guard lock(mutex_);
    const auto entry = endpointListeners_.find(name);
    if (entry != endpointListeners_.end()) found = entry->second.endpoint;
  }
  return found && found->hasListener() ? found : nullptr;
}
