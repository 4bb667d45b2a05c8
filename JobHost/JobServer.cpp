#include "JobHost/JobServer.h"

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/Definitions/JobDefinition.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using namespace platform;

constexpr std::uint32_t kRoot = 0;

Value answerOfFailure(LaunchdError code, std::string text) {
  return failureAnswer({kCFErrorDomainLaunchd, static_cast<int>(code), std::move(text)});
}

MessageResult wrongArgument(const PeerMessage& message, const char* expected) {
  return std::unexpected(NSException{
      kNSInvalidArgumentException, fmt::format("{}: expected {}", message.selector, expected), {}});
}

// If the caller has gone, its request was carried out all the same, so ignore a failed answer.
void answer(const std::unique_ptr<PeerReply>& reply, const MessageResult& result) {
  static_cast<void>(reply->answer(result));
}

JobHost::Completion answering(std::unique_ptr<PeerReply> reply) {
  return [reply = std::move(reply)](JobHost::Outcome outcome) {
    answer(reply, outcome ? Value() : failureAnswer(outcome.error()));
  };
}

}  // namespace

Result<std::unique_ptr<JobServer>> JobServer::listen(RunLoop& loop, PeerTransport& transport,
                                                     const std::string& path, std::uint32_t user,
                                                     JobHost& host, SystemLog& log) {
  std::unique_ptr<JobServer> server(new JobServer(loop, user, host, log));
  // The mode lets only the host's user open the socket (and root always). The credentials are
  // checked too, because an administrator may change the mode.
  auto listener =
      transport.listen(path, {.audience = PeerAudience::all(), .socketMode = 0600},
                       [raw = server.get()](std::unique_ptr<PeerConnection> connection) {
                         raw->accept(std::move(connection));
                       });
  if (!listener) return std::unexpected(std::move(listener.error()));
  server->listener_ = *std::move(listener);
  host.setStartHandler([raw = server.get()](const std::string& label, ProcessId process) {
    for (auto& [id, client] : raw->clients_) client.starts.started(label, process);
  });
  host.setChangeHandler([raw = server.get()](const std::string& label) {
    for (auto& [id, client] : raw->clients_) client.starts.started(label, kNoProcess);
  });
  return server;
}

void JobServer::accept(std::unique_ptr<PeerConnection> connection) {
  const PeerCredentials peer = connection->peer();
  const bool isAllowed = peer.user == kRoot || peer.user == user_;
  if (isAllowed) {
    connection->admit();
  } else {
    // Don't admit it. It keeps an unadmitted peer's place for as long as that lasts, which is
    // enough to be told.
    refusals_.write(
        fmt::format("process {} of user {} may not use the jobs", peer.process, peer.user),
        peer.user);
  }
  const ClientId id = ++lastClient_;
  connection->setHandlers(
      {.message = [this, id,
                   isAllowed](PeerMessage message) { serve(id, isAllowed, std::move(message)); },
       .death =
           [this, id, isAllowed, peer](const Error& why) {
             // Don't log a peer that closed its connection, nor one whose refusal was logged when
             // it connected.
             if (isAllowed && why.code != ErrorCode::kNotFound) {
               refusals_.write(fmt::format("process {} of user {} was cut off: {}", peer.process,
                                           peer.user, describe(why)),
                               peer.user);
             }
             clients_.erase(id);
           }});
  clients_[id].connection = std::move(connection);
}

void JobServer::serve(ClientId client, bool isAllowed, PeerMessage message) {
  if (!message.reply) return;  // No message of this host is one-way.
  if (message.selector == kMayChangeJobsMessage) return answer(message.reply, Value(isAllowed));
  if (isAllowed) return serveAllowed(client, std::move(message));
  answer(
      message.reply,
      answerOfFailure(LaunchdError::kNotAuthorized,
                      fmt::format("only root and user {} may use the jobs of this host", user_)));
}

void JobServer::serveAllowed(ClientId client, PeerMessage message) {
  if (message.selector == kSubmitJobMessage) return submit(std::move(message));
  if (message.selector == kRemoveJobMessage) return remove(std::move(message));
  if (message.selector == kCopyJobStatesMessage) {
    return answer(message.reply, copyStatesAfter("", kMaximumJobs));
  }
  if (message.selector == kCopyJobStatesAfterMessage) {
    const std::string* label = message.arguments.front().string();
    return answer(message.reply, label ? MessageResult(copyStatesAfter(*label, kJobStatesInAPage))
                                       : wrongArgument(message, "a label"));
  }
  if (message.selector == kCopyJobMessage) {
    const std::string* label = message.arguments.front().string();
    return answer(message.reply,
                  label ? MessageResult(host_.copy(*label)) : wrongArgument(message, "a label"));
  }
  if (message.selector == kAwaitJobStartsMessage) {
    return awaitStarts(clients_.at(client).starts, std::move(message.reply));
  }
  answer(message.reply,
         std::unexpected(NSException{kNSInvalidArgumentException,
                                     quotedInMessage(message.selector) + ": unrecognized selector",
                                     {}}));
}

void JobServer::submit(PeerMessage message) {
  auto definition = parseJobDefinition(message.arguments.front());
  if (!definition) {
    return answer(message.reply,
                  answerOfFailure(LaunchdError::kInvalidJob, describe(definition.error())));
  }
  host_.submit(*std::move(definition), answering(std::move(message.reply)));
}

void JobServer::remove(PeerMessage message) {
  const std::string* label = message.arguments[0].string();
  const auto wait = message.arguments[1].boolean();
  if (!label || !wait) {
    return answer(message.reply, wrongArgument(message, "a label and a boolean"));
  }
  if (*wait || host_.copyState(*label).isNil()) {
    return host_.remove(*label, answering(std::move(message.reply)));
  }
  host_.remove(*label, [&log = log_](const JobHost::Outcome& outcome) {
    if (outcome) return;  // No caller waits for it.
    log.asl_log(nullptr, ASL_LEVEL_ERR, outcome.error().localizedDescription);
  });
  answer(message.reply, Value());
}

void JobServer::awaitStarts(StartSubscription& starts, std::unique_ptr<PeerReply> reply) {
  if (!starts.hasBegun()) starts.begin(host_.labelsOfChangedPrograms());
  starts.await(std::move(reply));
}

Value JobServer::copyStatesAfter(std::string label, std::size_t most) {
  Dictionary states;
  while (states.empty()) {
    const std::vector<std::string> labels = host_.labelsAfter(label, most);
    if (labels.empty()) break;
    for (const std::string& next : labels) {
      Value state = host_.copyState(next);
      if (state.isNil()) continue;  // copyState() has found its end, which finished its removal.
      states.set(next, std::move(state));
    }
    label = labels.back();
  }
  return states;
}

}  // namespace jobhost
