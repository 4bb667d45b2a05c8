#include "Tools/servicemanagerctl/DaemonClient.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

using namespace platform;

constexpr char kNoProxy[] = "VantorNilProxyException";

std::int64_t wholeSeconds(Duration duration) {
  return std::chrono::duration_cast<std::chrono::seconds>(duration).count();
}

}  // namespace

std::optional<Refusal> refusalOfPermission(const PeerConnectFailure& failure,
                                           std::string_view server,
                                           const std::optional<std::string>& group, bool isRoot) {
  if (failure.kind != PeerConnectFailure::Kind::kRefused) return std::nullopt;
  const std::string why = describe(failure.error);
  // Its owner, not this user, lacks the right.
  if (failure.error.osError == EPERM)
    return Refusal{kExitNotAuthenticated,
                   fmt::format("{}; it may be another program than {}, so find out who started it",
                               why, server)};
  if (failure.error.osError != EACCES) return std::nullopt;
  if (isRoot)
    return Refusal{kExitNotPermitted,
                   fmt::format("{}; this root may not either, as in a container of a user's: ask "
                               "outside of it, or see who owns the folders above the socket",
                               why)};
  const std::string member =
      group ? fmt::format(", or as a member of the group \"{}\"", *group) : std::string();
  return Refusal{
      kExitNotPermitted,
      fmt::format("{}; ask as root, or as the user whom {} runs under{}", why, server, member)};
}

DaemonClient::DaemonClient(const Environment& environment, std::string server, std::string protocol,
                           ServerTexts texts)
    : environment_(environment),
      server_(std::move(server)),
      protocol_(std::move(protocol)),
      texts_(std::move(texts)),
      client_(environment_.objects, server_, protocol_, std::nullopt) {}

Answer<void> DaemonClient::connect() {
  const auto connection = lookUp();
  if (!connection) return std::unexpected(connection.error());
  // Connect first: otherwise the client would hide why there is no proxy.
  (*connection)->setDelegate(&client_);
  (*connection)->setRequestTimeout(kTimeOut);
  const auto proxy = (*connection)->rootProxy();
  if (!proxy) return std::unexpected(refusal(proxy.error(), kTimeOut));
  (*proxy)->setProtocolForProxy(environment_.objects.protocols.find(protocol_));
  client_.setConnection(*connection);
  client_.setRootProxy(*proxy);
  return {};
}

Answer<std::shared_ptr<NSConnection>> DaemonClient::lookUp() {
  const Instant deadline = environment_.objects.loop.now() + kTimeOut;
  for (;;) {
    if (auto connection = environment_.objects.connections.connectionWithRegisteredName(server_))
      return connection;
    const ListenerPlace place = environment_.place(server_);
    const auto tried = environment_.transport.connect(place.path, {.servers = place.servers});
    const bool isLate = environment_.objects.loop.now() >= deadline;
    if (!tried && (isLate || tried.error().kind != PeerConnectFailure::Kind::kTimedOut))
      return std::unexpected(refusal(tried.error()));
    if (isLate) return std::unexpected(nobodyThere());
    // The daemon is there but busy. After a failure the client pauses before it connects again; a
    // daemon's start ends the pause.
    environment_.objects.connections.serverDidStart(server_);
  }
}

Answer<Value> DaemonClient::ask(std::string_view selector, Array arguments, Duration timeOut) {
  if (connection()) connection()->setReplyTimeout(timeOut);
  auto result = client_.sendMessage(selector, std::move(arguments));
  if (!result) return std::unexpected(refusal(result.error(), timeOut));
  if (const auto& raised = client_.recentException())
    return std::unexpected(refusal(*raised, timeOut));
  return std::move(*result);
}

Refusal DaemonClient::refusal(const PeerConnectFailure& failure) const {
  using Kind = PeerConnectFailure::Kind;
  const std::string why = describe(failure.error);
  switch (failure.kind) {
    case Kind::kNobodyThere:
      return nobodyThere();
    case Kind::kRefused:
      if (auto refused =
              refusalOfPermission(failure, texts_.name, environment_.group, environment_.isRoot))
        return *std::move(refused);
      break;
    case Kind::kTimedOut:
      return {kExitFailed,
              fmt::format("{} is there but has not answered for {} s; {}, so try again later, and "
                          "see \"servicemanagerctl log\"",
                          texts_.name, wholeSeconds(kTimeOut), texts_.whyNoAnswer)};
    case Kind::kSystem:
      break;
  }
  return {kExitFailed, texts_.name + " can't be reached: " + why};
}

Refusal DaemonClient::refusal(const NSException& exception, Duration timeOut) const {
  if (exception.name == kNSFailedAuthenticationException)
    return {kExitNotAuthenticated,
            fmt::format("{} and this tool don't recognize each other: {}; both must be of the same "
                        "product and run on this machine itself, so use the servicemanagerctl that "
                        "was installed with it",
                        texts_.name, exception.reason)};
  if (exception.name == kNSPortTimeoutException)
    return {kExitFailed, fmt::format("{} has not answered for {} s; it may still be at it: see "
                                     "\"servicemanagerctl list\" and \"servicemanagerctl log\"",
                                     texts_.name, wholeSeconds(timeOut))};
  if (exception.name == kNSInvalidSendPortException)
    return {
        kExitNobodyThere,
        texts_.name + " ended before it answered; the job host starts it again, so try once more"};
  if (exception.name == kNoProxy) return nobodyThere();
  return {kExitFailed,
          fmt::format("{} refused: {}: {}", texts_.name, exception.name, exception.reason)};
}

Refusal DaemonClient::nobodyThere() const {
  return {kExitNobodyThere,
          fmt::format("{} does not serve below {}; is it running? \"servicemanagerctl {}\" tells, "
                      "and \"servicemanagerctl log\" why one that runs may be idle",
                      texts_.name, environment_.root, texts_.statusCommand)};
}
