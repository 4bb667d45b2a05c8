// One file, because each test asks the same server by the same fixture.

#include "JobHost/JobServer.h"

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "JobHost/Processes/FakeProcesses_contract.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace jobhost {
namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kSocket[] = "/run/vantor/launchd";
constexpr char kAgent[] = "com.example.agent";
constexpr std::uint32_t kHostsUser = 500;

// A process of a user, connected to the host's socket.
struct Client {
  Client(FakePeerNetwork& network, std::uint32_t user)
      : transport(network, PeerCredentials{77, user, user}) {
    auto connected = transport.connect(kSocket, {.servers = PeerAudience::all()});
    EXPECT_TRUE(connected);
    if (connected) connection = *std::move(connected);
  }

  FakePeerTransport transport;
  std::unique_ptr<PeerConnection> connection;
};

class JobServerTest : public testing::Test {
 protected:
  using Answer = std::shared_ptr<std::optional<MessageResult>>;

  JobServerTest() {
    JobHostOptions options;
    options.root = root_.path();
    options.bootId = "boot";
    host_ = *JobHost::create(loop_, processes_, log_, std::move(options));
    auto server = JobServer::listen(loop_, hostTransport_, kSocket, kHostsUser, *host_, log_);
    EXPECT_TRUE(server);
    server_ = *std::move(server);
    rootClient_.emplace(network_, 0);
  }

  // Sends a request, and runs what the host can do at once.
  Answer ask(Client& client, const char* selector, const Array& arguments) {
    auto answer = std::make_shared<std::optional<MessageResult>>();
    client.connection->callAsync(selector, arguments, 1h,
                                 [answer](MessageResult result) { *answer = std::move(result); });
    loop_.runReady();
    return answer;
  }
  Answer ask(const char* selector, const Array& arguments) {
    return ask(*rootClient_, selector, arguments);
  }

  // The result of an answer that has already come.
  static Value value(const Answer& answer) {
    EXPECT_TRUE(*answer) << "no answer";
    if (!*answer) return {};
    EXPECT_TRUE(**answer) << (**answer).error().reason;
    return **answer ? ***answer : Value();
  }
  static std::optional<NSError> error(const Answer& answer) { return failureIn(value(answer)); }
  static void expectError(const Answer& answer, LaunchdError code, const std::string& text) {
    const auto failure = error(answer);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code, static_cast<int>(code));
    EXPECT_THAT(failure->localizedDescription, HasSubstr(text));
  }
  static void expectInvalidArgument(const Answer& answer, const std::string& text) {
    ASSERT_TRUE(*answer && !**answer);
    EXPECT_EQ((**answer).error().name, kNSInvalidArgumentException);
    EXPECT_THAT((**answer).error().reason, HasSubstr(text));
  }

  static Dictionary job(Dictionary more = {}) {
    Dictionary dictionary{{"Label", kAgent}, {"Program", "/opt/agent"}, {"KeepAlive", true}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    return dictionary;
  }
  void submitJob(Dictionary more = {}) {
    EXPECT_EQ(error(ask(kSubmitJobMessage, {job(std::move(more))})), std::nullopt);
  }
  ProcessId lastProcess() { return processes_.started.back().process; }

  TemporaryFolder root_;
  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "jobhost"};
  FakeProcesses processes_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport hostTransport_{network_, PeerCredentials{1, kHostsUser, kHostsUser}};
  std::unique_ptr<JobHost> host_;
  std::unique_ptr<JobServer> server_;
  std::optional<Client> rootClient_;
};

TEST_F(JobServerTest, OnlyItsUserMayOpenItsSocket) {
  EXPECT_EQ(network_.socketMode(kSocket), 0600u);
}

TEST_F(JobServerTest, ASubmissionIsAnsweredWhenTheProcessRuns) {
  EXPECT_EQ(value(ask(kSubmitJobMessage, {job()})), Value());
  ASSERT_EQ(processes_.started.size(), 1u);
  EXPECT_EQ(processes_.started[0].label, kAgent);
}

TEST_F(JobServerTest, ASubmissionWhoseStartFailsIsRejectedWithTheReason) {
  processes_.failure = Error{ErrorCode::kSystem, ENOEXEC, "executing /opt/agent"};
  expectError(ask(kSubmitJobMessage, {job()}), LaunchdError::kInternal, "executing /opt/agent");
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobServerTest, AnInvalidDictionaryIsRejectedWithLabelAndKey) {
  expectError(ask(kSubmitJobMessage, {job({{"KeepAlive", "yes"}})}), LaunchdError::kInvalidJob,
              "job \"com.example.agent\": key \"KeepAlive\": expected a boolean");
  expectError(ask(kSubmitJobMessage, {"text"}), LaunchdError::kInvalidJob, "expected a dictionary");
  expectError(ask(kSubmitJobMessage, {Value()}), LaunchdError::kInvalidJob,
              "expected a dictionary");
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobServerTest, AJobIsCopiedWithItsProcess) {
  submitJob({{"Other", 1}});
  const Value copy = value(ask(kCopyJobMessage, {kAgent}));
  EXPECT_EQ(copy["Other"], Value(1));
  EXPECT_EQ(copy["PID"], Value(lastProcess()));
  EXPECT_TRUE(value(ask(kCopyJobMessage, {"com.example.other"})).isNil());
}

TEST_F(JobServerTest, TheStatesOfAllJobsAreCopied) {
  EXPECT_EQ(value(ask(kCopyJobStatesMessage, {})), Value(Dictionary{}));
  submitJob();
  processes_.end(lastProcess(), ExitStatus{ExitStatus::Kind::kExited, 3});
  loop_.runReady();
  EXPECT_EQ(error(ask(kSubmitJobMessage, {job({{"Label", "another"}})})), std::nullopt);
  const Value states = value(ask(kCopyJobStatesMessage, {}));
  EXPECT_EQ(states.dictionary()->size(), 2u);
  const Value& other = states["another"];
  EXPECT_EQ(other, Value(Dictionary{{"PID", lastProcess()}, {"History", other["History"]}}));
  const Value& agent = states[kAgent];
  EXPECT_EQ(agent, Value(Dictionary{{"LastExitStatus", 3 << 8}, {"History", agent["History"]}}));
  EXPECT_EQ(agent["History"]["Crashes"], Value(1));
  EXPECT_TRUE(agent["History"]["LastEnds"].isNil());
}

TEST_F(JobServerTest, TheStatesOfManyJobsAreCopiedInPages) {
  for (std::size_t number = 0; number <= kJobStatesInAPage; ++number) {
    submitJob({{"Label", fmt::format("{:05}", number)}, {"KeepAlive", false}});
  }
  const Value first = value(ask(kCopyJobStatesAfterMessage, {""}));
  EXPECT_EQ(first.dictionary()->size(), kJobStatesInAPage);
  EXPECT_EQ(first.dictionary()->begin()->first, "00000");
  const Value second = value(ask(kCopyJobStatesAfterMessage, {"01999"}));
  ASSERT_EQ(second.dictionary()->size(), 1u);
  EXPECT_EQ(second.dictionary()->begin()->first, "02000");
  EXPECT_EQ(value(ask(kCopyJobStatesAfterMessage, {"02000"})), Value(Dictionary{}));
  expectInvalidArgument(ask(kCopyJobStatesAfterMessage, {5}), "a label");
}

TEST_F(JobServerTest, CopyingAllStatesStartsNothing) {
  for (const char* label : {"a", "b"}) submitJob({{"Label", label}, {"ThrottleInterval", 0}});
  const ProcessId last = lastProcess();
  Value states;
  loop_.post([&] {
    for (ProcessId process : {last - 1, last}) processes_.end(process);
    loop_.post([&] {
      rootClient_->connection->callAsync(kCopyJobStatesMessage, {}, 1h,
                                         [&](const MessageResult& result) { states = *result; });
    });
  });
  loop_.runReady();
  EXPECT_EQ(states["a"]["LastExitStatus"], Value(0));
  EXPECT_EQ(processes_.started.size(), 4u);
}

TEST_F(JobServerTest, ARemovedJobHasAStateUntilItsProcessesAreSearched) {
  submitJob();
  processes_.obeysTermination = false;
  const Answer removed = ask(kRemoveJobMessage, {kAgent, true});
  processes_.endUnreported(lastProcess());
  const Value states = value(ask(kCopyJobStatesMessage, {}));
  EXPECT_TRUE(states[kAgent]["PID"].isNil());
  EXPECT_EQ(states[kAgent]["LastExitStatus"], Value(0));
  EXPECT_TRUE(*removed);
  EXPECT_EQ(value(ask(kCopyJobStatesMessage, {})), Value(Dictionary{}));
}

TEST_F(JobServerTest, ARemovalThatWaitsIsAnsweredWhenTheGroupIsEmpty) {
  submitJob();
  processes_.obeysTermination = false;
  const Answer answer = ask(kRemoveJobMessage, {kAgent, true});
  EXPECT_FALSE(*answer);
  loop_.advanceBy(20s - 1ns);
  EXPECT_FALSE(*answer);
  loop_.advanceBy(1s);
  EXPECT_EQ(value(answer), Value());
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobServerTest, ARemovalThatDoesNotWaitIsAnsweredAtOnce) {
  submitJob();
  processes_.obeysTermination = false;
  EXPECT_EQ(value(ask(kRemoveJobMessage, {kAgent, false})), Value());
  EXPECT_TRUE(processes_.isAlive(lastProcess()));
  loop_.advanceBy(21s);
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobServerTest, ARemovalThatNobodyWaitsForFailsWithAnErrorInTheLog) {
  submitJob();
  processes_.obeysTermination = false;
  ask(kRemoveJobMessage, {kAgent, true});
  // The submission waits for the first removal and fails. The second removal then finds no job.
  processes_.failure = Error{ErrorCode::kSystem, ENOEXEC, "executing /opt/agent"};
  ask(kSubmitJobMessage, {job()});
  EXPECT_EQ(value(ask(kRemoveJobMessage, {kAgent, false})), Value());
  sink_.clear();
  loop_.advanceBy(21s);
  EXPECT_THAT(sink_.messagesAtLevel(ASL_LEVEL_ERR),
              ElementsAre(Field(&FakeLogSink::Message::text,
                                HasSubstr("no job has the label \"com.example.agent\""))));
}

TEST_F(JobServerTest, AMissingJobCannotBeRemoved) {
  expectError(ask(kRemoveJobMessage, {kAgent, true}), LaunchdError::kNoSuchJob, kAgent);
  expectError(ask(kRemoveJobMessage, {kAgent, false}), LaunchdError::kNoSuchJob, kAgent);
}

TEST_F(JobServerTest, TheHostsUserMayWhatRootMay) {
  Client client(network_, kHostsUser);
  EXPECT_EQ(value(ask(client, kMayChangeJobsMessage, {})), Value(true));
  EXPECT_EQ(error(ask(client, kSubmitJobMessage, {job()})), std::nullopt);
  EXPECT_FALSE(value(ask(client, kCopyJobMessage, {kAgent})).isNil());
  EXPECT_EQ(error(ask(client, kRemoveJobMessage, {kAgent, true})), std::nullopt);
}

TEST_F(JobServerTest, OtherUsersAreToldThatTheyMayNot) {
  submitJob();
  Client client(network_, kHostsUser + 1);
  EXPECT_EQ(value(ask(client, kMayChangeJobsMessage, {})), Value(false));
  const std::pair<const char*, Array> requests[] = {
      {kSubmitJobMessage, {job({{"Label", "another"}})}},
      {kRemoveJobMessage, {kAgent, true}},
      {kRemoveJobMessage, {kAgent, false}},
      {kCopyJobMessage, {kAgent}},
      {kCopyJobStatesMessage, {}},
      {kAwaitJobStartsMessage, {}},
      {"inventedMessage", {}},
  };
  for (const auto& [selector, arguments] : requests) {
    expectError(ask(client, selector, arguments), LaunchdError::kNotAuthorized,
                "only root and user 500 may use the jobs of this host");
  }
  EXPECT_THAT(host_->labels(), ElementsAre(kAgent));
  EXPECT_TRUE(processes_.isAlive(lastProcess()));
}

TEST_F(JobServerTest, ARefusedClientIsLoggedOnce) {
  Client client(network_, kHostsUser + 1);
  ask(client, kCopyJobMessage, {kAgent});
  ask(client, kCopyJobMessage, {kAgent});
  EXPECT_EQ(sink_.count("process 77 of user 501 may not use the jobs"), 1u);
}

TEST_F(JobServerTest, AClientThatReadsNoAnswersIsCutOffAndLoggedOnce) {
  submitJob({{"Comment", std::string(kMaxPeerUnreadBytes / 5, 'x')}});
  Client client(network_, kHostsUser);
  client.transport.hang();
  for (int i = 0; i < 8; ++i) ask(client, kCopyJobMessage, {kAgent});
  EXPECT_EQ(sink_.count("process 77 of user 500 was cut off: the peer leaves too many answers"),
            1u);
}

TEST_F(JobServerTest, AClientThatDisconnectsIsNotLogged) {
  const std::size_t before = sink_.texts().size();
  Client client(network_, kHostsUser);
  ask(client, kCopyJobMessage, {kAgent});
  client.transport.die();
  loop_.runReady();
  EXPECT_EQ(sink_.texts().size(), before);
}

TEST_F(JobServerTest, AFloodOfRefusalsIsNoFloodOfLogLines) {
  for (std::size_t i = 0; i <= UserLines::kLinesPerUser; ++i) Client(network_, kHostsUser + 1);
  EXPECT_EQ(sink_.count("may not use the jobs"), UserLines::kLinesPerUser);
}

TEST_F(JobServerTest, ARefusedClientKeepsItsPlaceForAShortTime) {
  Client client(network_, kHostsUser + 1);
  bool died = false;
  client.connection->setHandlers({.message = {}, .death = [&](const Error&) { died = true; }});
  loop_.advanceBy(kPeerAdmissionTime - 1ns);
  EXPECT_FALSE(died);
  loop_.advanceBy(1ns);
  EXPECT_TRUE(died);
  EXPECT_EQ(value(ask(kMayChangeJobsMessage, {})), Value(true));
}

TEST_F(JobServerTest, ArgumentsOfAWrongKindAreRefused) {
  expectInvalidArgument(ask(kCopyJobMessage, {1}), "copyJob:: expected a label");
  expectInvalidArgument(ask(kRemoveJobMessage, {1, true}), "expected a label and a boolean");
  expectInvalidArgument(ask(kRemoveJobMessage, {kAgent, 1}), "expected a label and a boolean");
}

TEST_F(JobServerTest, AnUnknownMessageIsRefused) {
  expectInvalidArgument(ask("inventedMessage", {}), "\"inventedMessage\": unrecognized selector");
}

TEST_F(JobServerTest, AMessageThatWantsNoAnswerDoesNothing) {
  EXPECT_TRUE(rootClient_->connection->send(kSubmitJobMessage, {job()}));
  loop_.runReady();
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobServerTest, ARequestIsCarriedOutAfterItsClientHungUp) {
  submitJob();
  processes_.obeysTermination = false;
  ask(kRemoveJobMessage, {kAgent, true});
  rootClient_->transport.die();
  loop_.advanceBy(21s);
  EXPECT_THAT(host_->labels(), IsEmpty());
  Client next(network_, 0);
  EXPECT_EQ(value(ask(next, kMayChangeJobsMessage, {})), Value(true));
}

TEST_F(JobServerTest, TheServerMayEndWhileAClientWaits) {
  submitJob();
  processes_.obeysTermination = false;
  const Answer answer = ask(kRemoveJobMessage, {kAgent, true});
  server_.reset();
  loop_.advanceBy(21s);
  ASSERT_TRUE(*answer && !**answer);
  EXPECT_EQ((**answer).error().name, kNSInvalidSendPortException);
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobServerTest, StartsAreReportedToAClientThatAsked) {
  const Answer first = ask(kAwaitJobStartsMessage, {});
  EXPECT_FALSE(*first);
  submitJob({{"ThrottleInterval", 5}});
  EXPECT_EQ(value(first), Value(Dictionary{{kAgent, lastProcess()}}));
  processes_.end(lastProcess());
  const Answer second = ask(kAwaitJobStartsMessage, {});
  EXPECT_FALSE(*second);
  loop_.advanceBy(5s);
  EXPECT_EQ(value(second), Value(Dictionary{{kAgent, lastProcess()}}));
}

TEST_F(JobServerTest, StartsBetweenTwoRequestsAreCollected) {
  const Answer first = ask(kAwaitJobStartsMessage, {});
  submitJob({{"Label", "first"}});
  EXPECT_TRUE(*first);
  submitJob({{"Label", "second"}});
  submitJob({{"Label", "third"}});
  const ProcessId process = lastProcess();
  EXPECT_EQ(value(ask(kAwaitJobStartsMessage, {})),
            Value(Dictionary{{"second", process - 1}, {"third", process}}));
  EXPECT_FALSE(*ask(kAwaitJobStartsMessage, {}));
}

TEST_F(JobServerTest, AFailedStartIsNotReported) {
  const Answer starts = ask(kAwaitJobStartsMessage, {});
  processes_.failure = Error{ErrorCode::kSystem, ENOEXEC, "executing /opt/agent"};
  ask(kSubmitJobMessage, {job()});
  EXPECT_FALSE(*starts);
}

TEST_F(JobServerTest, ASecondRequestForStartsEndsTheFirst) {
  const Answer first = ask(kAwaitJobStartsMessage, {});
  const Answer second = ask(kAwaitJobStartsMessage, {});
  EXPECT_EQ(value(first), Value(Dictionary()));
  EXPECT_FALSE(*second);
}

TEST_F(JobServerTest, ASubscriberThatDoesNotAskAgainKeepsFewStarts) {
  ask(kAwaitJobStartsMessage, {});
  for (std::size_t i = 0; i < StartSubscription::kMaximumLabels + 2; ++i) {
    submitJob({{"Label", "job" + std::to_string(i)}});
  }
  EXPECT_EQ(value(ask(kAwaitJobStartsMessage, {})).dictionary()->size(),
            StartSubscription::kMaximumLabels);
}

TEST_F(JobServerTest, AClientThatHungUpIsNoLongerNotified) {
  ask(kAwaitJobStartsMessage, {});
  rootClient_->transport.die();
  loop_.runReady();
  Client next(network_, 0);
  EXPECT_EQ(error(ask(next, kSubmitJobMessage, {job()})), std::nullopt);
}

TEST_F(JobServerTest, ASocketThatIsTakenIsAnError) {
  const auto second = JobServer::listen(loop_, hostTransport_, kSocket, kHostsUser, *host_, log_);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code, ErrorCode::kDenied);
}

}  // namespace
}  // namespace jobhost
