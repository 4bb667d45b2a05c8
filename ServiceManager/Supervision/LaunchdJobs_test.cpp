#include "ServiceManager/Supervision/LaunchdJobs.h"

#include <chrono>
#include <deque>
#include <expected>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class LaunchdJobsTest : public SupervisionFixture {
 protected:
  Value job() { return catalogue_.jobInfo(kAgent); }

  bool request(const Value& request, const char* domain = kSMDomainSystemLaunchd) {
    using Outcome = std::expected<void, std::optional<NSError>>;
    const auto outcome = answerTo<Outcome>(
        [&](auto answer) { launchd_.submitJobRequest(request, domain, std::move(answer)); });
    if (!outcome) error_ = outcome.error();
    return outcome.has_value();
  }
  Value copy() {
    return answerTo<Value>([&](auto answer) { launchd_.copyJob(kAgent, std::move(answer)); });
  }

  OSStatus acquireRights(LaunchdJobs& jobs) {
    const LaunchdJobs::Perform perform = [this](RunLoop::Callback work) {
      loop_.post(std::move(work));
    };
    return answerTo<OSStatus>(
        [&](auto answer) { jobs.acquireRights(perform, perform, std::move(answer)); });
  }

  bool unload(LaunchdJobs& jobs) {
    return answerTo<bool>([&](auto answer) {
      jobs.unloadJobFromLaunchD(kAgent, [answer = std::move(answer)](const auto& removed) mutable {
        answer(removed.has_value());
      });
    });
  }

  std::optional<NSError> error_;
};

TEST_F(LaunchdJobsTest, ADictionaryIsSubmittedUnchanged) {
  EXPECT_TRUE(request(job()));
  EXPECT_FALSE(error_);
  EXPECT_TRUE(isRunning(kAgent));
  const Value copied = copy();
  const Value submitted = job();
  for (const auto& [key, value] : *submitted.dictionary()) EXPECT_EQ(copied[key], value) << key;
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(LaunchdJobsTest, AStringRemovesTheJobAndItsProcess) {
  request(job());
  const int first = process(kAgent);
  EXPECT_TRUE(request(kAgent));
  EXPECT_FALSE(error_);
  EXPECT_FALSE(exitWatcher_.isKnown(first));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(LaunchdJobsTest, ARemovalWaitsForTheProcess) {
  request(job());
  jobs_.ignoreTermination(kAgent);
  const Instant before = loop_.now();
  EXPECT_TRUE(request(kAgent));
  EXPECT_EQ(loop_.now() - before, std::chrono::seconds(20));
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(LaunchdJobsTest, AnInvalidRequestLogsNothing) {
  for (const Value& other : {Value(1), Value(Array{job()}), Value(true), Value(), Value(Data{1})}) {
    EXPECT_FALSE(request(other));
    EXPECT_FALSE(error_);
  }
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(LaunchdJobsTest, AFullHostIsLoggedOnceUntilItAcceptsAJob) {
  jobs_.setFull(true);
  for (const std::size_t lines : {1u, 0u, 0u}) {
    EXPECT_FALSE(request(job()));
    EXPECT_THAT(takeLog(), SizeIs(lines));
  }
  jobs_.setFull(false);
  EXPECT_TRUE(request(job()));
  EXPECT_TRUE(request(kAgent));
  jobs_.setFull(true);
  EXPECT_FALSE(request(job()));
  EXPECT_THAT(takeLog(), ElementsAre(HasSubstr("Unable to submit job")));
}

TEST_F(LaunchdJobsTest, AFailedSubmissionIsLoggedWithItsDictionary) {
  jobs_.setUnstartable(pathOf("agent"), "no such interpreter");
  EXPECT_FALSE(request(job()));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->domain, "CFErrorDomainLaunchd");
  EXPECT_THAT(takeLog(), ElementsAre("3 Unable to submit job:\n" +
                                     stringWithFormat("%@ Error: %@", job(), *error_)));
}

TEST_F(LaunchdJobsTest, ARemovalOfAnAbsentJobIsAnErrorLine) {
  EXPECT_FALSE(request(kAgent));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->code, 6);
  EXPECT_THAT(takeLog(), ElementsAre(stringWithFormat(
                             "3 Unable to remove job: com.example.agent\n:%@", *error_)));
}

TEST_F(LaunchdJobsTest, UnloadingRemovesTheJobAndWaits) {
  request(job());
  const int first = process(kAgent);
  EXPECT_TRUE(unload(launchd_));
  EXPECT_FALSE(exitWatcher_.isKnown(first));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(LaunchdJobsTest, UnloadingWaitsForTheProcess) {
  request(job());
  jobs_.ignoreTermination(kAgent);
  const Instant before = loop_.now();
  EXPECT_TRUE(unload(launchd_));
  EXPECT_EQ(loop_.now() - before, std::chrono::seconds(20));
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(LaunchdJobsTest, AFailedUnloadingIsLogged) {
  EXPECT_FALSE(unload(launchd_));
  EXPECT_THAT(takeLog(),
              ElementsAre(testing::StartsWith(
                  "3 Unable to remove job: com.example.agent\n:Error Domain=CFErrorDomainLaunchd "
                  "Code=6")));
}

TEST_F(LaunchdJobsTest, TheHostRefusesAnotherDomain) {
  EXPECT_FALSE(request(job(), "kSMDomainUserLaunchd"));
  ASSERT_TRUE(error_);
  EXPECT_THAT(error_->localizedDescription, HasSubstr("kSMDomainUserLaunchd"));
}

// Notes the authorizations of requests.
class AuthorizationProbe : public Jobs {
 public:
  std::expected<void, NSError> SMJobSubmit(std::string_view, const Value&,
                                           const AuthorizationRef*) override {
    return {};
  }
  std::expected<void, NSError> SMJobRemove(std::string_view, std::string_view,
                                           const AuthorizationRef*, bool) override {
    return {};
  }
  Value SMJobCopyDictionary(std::string_view, std::string_view) override { return {}; }
  void submitJob(std::string_view, const Value&, const AuthorizationRef* authorization,
                 Submitted) override {
    given.push_back(authorization);
  }
  void copyJob(std::string_view, std::string_view, Copied) override {}
  void copyStatesAfter(std::string_view, Copied) override {}
  void removeJob(std::string_view, std::string_view, const AuthorizationRef* authorization,
                 Removed) override {
    given.push_back(authorization);
  }
  std::unique_ptr<RunLoopHandle> observeStarts(StartObserver) override { return nullptr; }
  std::vector<const AuthorizationRef*> given;
};

TEST_F(LaunchdJobsTest, TheAuthorizationIsForTheSystemsDomainAlone) {
  AuthorizationProbe probe;
  LaunchdJobs jobs(probe, authorization_);
  EXPECT_EQ(acquireRights(jobs), errAuthorizationSuccess);
  for (const char* domain : {kSMDomainSystemLaunchd, "kSMDomainUserLaunchd"}) {
    jobs.submitJobRequest(job(), domain, {});
    jobs.submitJobRequest(kAgent, domain, {});
  }
  jobs.unloadJobFromLaunchD(kAgent, {});
  ASSERT_EQ(probe.given.size(), 5u);
  const AuthorizationRef* const rights = probe.given[0];
  EXPECT_NE(rights, nullptr);
  EXPECT_THAT(probe.given, ElementsAre(rights, rights, nullptr, nullptr, rights));
}

TEST_F(LaunchdJobsTest, ACallerWithoutTheRightIsRefused) {
  jobs_.setCallerAllowed(false);
  EXPECT_NE(acquireRights(launchd_), errAuthorizationSuccess);
}

TEST_F(LaunchdJobsTest, AnUnreachableJobHostIsNoRefusal) {
  jobs_.setReachable(false);
  EXPECT_EQ(acquireRights(launchd_), errAuthorizationSuccess);
}

TEST_F(LaunchdJobsTest, AJobIsAbsentPresentOrUnknown) {
  using Presence = JobStatus::Presence;
  EXPECT_EQ(jobStatusIn(copy()).presence, Presence::kAbsent);
  request(job());
  EXPECT_EQ(jobStatusIn(copy()).presence, Presence::kPresent);
  EXPECT_EQ(jobStatusIn(copy()).process, process(kAgent));
  jobs_.setReachable(false);
  EXPECT_EQ(jobStatusIn(copy()).presence, Presence::kUnknown);
}

TEST_F(LaunchdJobsTest, EachAnswerIsKnown) {
  request(job());
  copy();
  EXPECT_EQ(launchd_.known()->find(kAgent).status.process, process(kAgent));
  EXPECT_EQ(changes_, 1);
  copy();
  EXPECT_EQ(changes_, 1);
  jobs_.setReachable(false);
  copy();
  EXPECT_EQ(launchd_.known()->find(kAgent).status.process, process(kAgent));
  jobs_.setReachable(true);
  EXPECT_TRUE(unload(launchd_));
  EXPECT_EQ(launchd_.known()->find(kAgent).status.presence, JobStatus::Presence::kAbsent);
  EXPECT_EQ(changes_, 2);
}

TEST_F(LaunchdJobsTest, ARefreshedJobIsKnown) {
  request(job());
  const int first = process(kAgent);
  jobs_.setOnCopied([this, first] {
    jobs_.endProcess(kAgent);
    launchd_.processEnded(kAgent, first);  // It asks again, behind this answer.
  });
  launchd_.refresh(kAgent);
  loop_.runReady();
  EXPECT_NE(process(kAgent), first);
  EXPECT_EQ(launchd_.known()->find(kAgent).status.process, process(kAgent));
}

TEST_F(LaunchdJobsTest, RefreshesWhileOneIsUnderWayAreOneMore) {
  for (int i = 0; i < 100; ++i) launchd_.refresh(kAgent);
  loop_.runReady();
  EXPECT_EQ(jobs_.copies(), 2);
}

TEST_F(LaunchdJobsTest, AllJobsAreRefreshedInPages) {
  for (const char* label : {kPrimary, kAgent, kHelper}) request(catalogue_.jobInfo(label));
  launchd_.refreshAll();
  launchd_.refreshAll();  // one more after the first
  loop_.runReady();
  for (const char* label : {kPrimary, kAgent, kHelper})
    EXPECT_EQ(launchd_.known()->find(label).status.process, process(label));
  using Presence = JobStatus::Presence;
  EXPECT_EQ(launchd_.known()->find("com.example.zero").status.presence, Presence::kAbsent);
  EXPECT_EQ(jobs_.copies(), 0);
}

TEST_F(LaunchdJobsTest, ACountThatBeginsAgainRefreshesAllJobs) {
  for (const char* label : {kPrimary, kAgent}) request(catalogue_.jobInfo(label));
  launchd_.refreshAll();
  loop_.advanceBy(std::chrono::minutes(1));
  EXPECT_EQ(launchd_.known()->find(kPrimary).history->starts, 1);
  jobs_.setReachable(false);
  jobs_.setReachable(true);  // another host
  copy();
  loop_.runReady();
  EXPECT_EQ(launchd_.known()->find(kPrimary).history->starts, 0);
}

// Answers about one job at once, and keeps the questions about all.
class CountingHost final : public AuthorizationProbe {
 public:
  void copyJob(std::string_view, std::string_view, Copied copied) override {
    const JobHistory history{.since = since, .starts = 1, .ends = 0, .crashes = 0, .lastEnds = {}};
    copied(Dictionary{{kJobHistoryKey, valueOfHistory(history, JobHistoryDetail::kCountsAndEnds)}});
  }
  void copyStatesAfter(std::string_view, Copied copied) override {
    rounds.push_back(std::move(copied));
  }
  WallTime since{std::chrono::seconds(1)};
  std::deque<Copied> rounds;
};

TEST_F(LaunchdJobsTest, ARestartedHostIsAskedForAllJobsTwiceAtMost) {
  CountingHost host;
  LaunchdJobs jobs(host, authorization_);
  const auto copyAll = [&] {
    for (const char* label : {"a", "b", "c"}) jobs.copyJob(label, [](const Value&) {});
  };
  copyAll();
  EXPECT_EQ(host.rounds.size(), 0u);
  host.since += std::chrono::seconds(1);
  copyAll();
  EXPECT_EQ(host.rounds.size(), 1u);
  host.rounds[0](Dictionary());
  EXPECT_EQ(host.rounds.size(), 2u);
  host.rounds[1](Dictionary());
  copyAll();
  EXPECT_EQ(host.rounds.size(), 2u);
}

TEST_F(LaunchdJobsTest, ARoundWithoutAnAnswerIsRepeatedWithTheNextCopy) {
  CountingHost host;
  LaunchdJobs jobs(host, authorization_);
  jobs.refreshAll();
  host.rounds[0](Value());
  EXPECT_EQ(host.rounds.size(), 1u);
  for (int i = 0; i < 2; ++i) {
    jobs.copyJob(kAgent, [](const Value&) {});
    EXPECT_EQ(host.rounds.size(), 2u);
  }
  host.rounds[1](Dictionary());
  EXPECT_TRUE(jobs.known()->isComplete);
  jobs.completeRefresh();
  EXPECT_EQ(host.rounds.size(), 2u);
}

TEST_F(LaunchdJobsTest, WithoutTheHostNothingBecomesKnown) {
  jobs_.setReachable(false);
  launchd_.refreshAll();
  loop_.advanceBy(std::chrono::minutes(1));
  EXPECT_EQ(launchd_.known()->find(kAgent).status.presence, JobStatus::Presence::kUnknown);
  EXPECT_EQ(changes_, 0);
}

TEST_F(LaunchdJobsTest, AnswersAfterItsEndAreDropped) {
  {
    LaunchdJobs jobs(jobs_, authorization_);
    jobs.copyJob(kAgent, [](const Value&) { ADD_FAILURE(); });
    jobs.submitJobRequest(job(), kSMDomainSystemLaunchd, [](const auto&) { ADD_FAILURE(); });
    jobs.unloadJobFromLaunchD(kAgent, [](const auto&) { ADD_FAILURE(); });
    jobs.refresh(kAgent);
    jobs.refreshAll();
  }
  loop_.runReady();
  EXPECT_THAT(takeLog(), IsEmpty());
}

}  // namespace
