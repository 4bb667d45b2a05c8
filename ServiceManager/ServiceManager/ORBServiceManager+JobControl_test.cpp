#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class JobControlTest : public ServiceManagerFixture {
 protected:
  JobControlTest() { use(catalogue()); }

  Value job() { return ORBServiceManager::jobInfoWithLabel(kAgent, manager().serviceInfo()); }

  bool request(const Value& request) {
    return manager().submitJobRequest(request, kSMDomainSystemLaunchd, error_);
  }

  std::optional<NSError> error_;
};

TEST_F(JobControlTest, ADictionaryIsSubmittedUnchanged) {
  EXPECT_TRUE(request(job()));
  EXPECT_FALSE(error_);
  EXPECT_TRUE(isRunning(kAgent));
  const Value copy = jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kAgent);
  const Value submitted = job();
  for (const auto& [key, value] : *submitted.dictionary()) EXPECT_EQ(copy[key], value) << key;
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(JobControlTest, AStringRemovesTheJobAndItsProcessHasGone) {
  request(job());
  const int first = process(kAgent);
  EXPECT_TRUE(request(kAgent));
  EXPECT_FALSE(error_);
  EXPECT_FALSE(exitWatcher_.isKnown(first));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(JobControlTest, ARemovalWaitsForAProcessThatDoesNotEndByItself) {
  request(job());
  jobs_.ignoreTermination(kAgent);
  const Instant before = loop_.now();
  EXPECT_TRUE(request(kAgent));
  EXPECT_EQ(loop_.now() - before, std::chrono::seconds(20));
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(JobControlTest, AnythingElseIsNoRequestAndLogsNothing) {
  for (const Value& other : {Value(1), Value(Array{job()}), Value(true), Value(), Value(Data{1})}) {
    EXPECT_FALSE(request(other));
    EXPECT_FALSE(error_);
  }
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(JobControlTest, AFailedSubmissionIsLoggedWithItsDictionaryAndLeavesItsError) {
  jobs_.setUnstartable(pathOf("agent"), "no such interpreter");
  EXPECT_FALSE(request(job()));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->domain, "CFErrorDomainLaunchd");
  EXPECT_THAT(takeLog(), ElementsAre("3 Unable to submit job:\n" +
                                     stringWithFormat("%@ Error: %@", job(), *error_)));
}

TEST_F(JobControlTest, ARemovalOfAJobThatHasGoneFailsAndIsAnErrorInTheLog) {
  EXPECT_FALSE(request(kAgent));
  ASSERT_TRUE(error_);
  EXPECT_EQ(error_->code, 6);
  EXPECT_THAT(takeLog(), ElementsAre(stringWithFormat(
                             "3 Unable to remove job: com.example.agent\n:%@", *error_)));
}

TEST_F(JobControlTest, UnloadingRemovesTheJobAndWaits) {
  request(job());
  const int first = process(kAgent);
  EXPECT_TRUE(manager().unloadJobFromLaunchD(kAgent));
  EXPECT_FALSE(exitWatcher_.isKnown(first));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(JobControlTest, AFailedUnloadingIsLogged) {
  EXPECT_FALSE(manager().unloadJobFromLaunchD(kAgent));
  EXPECT_THAT(takeLog(),
              ElementsAre(testing::StartsWith(
                  "3 Unable to remove job: com.example.agent\n:Error Domain=CFErrorDomainLaunchd "
                  "Code=6")));
}

TEST_F(JobControlTest, AnotherDomainIsTheHostsToRefuse) {
  EXPECT_FALSE(manager().submitJobRequest(job(), "kSMDomainUserLaunchd", error_));
  ASSERT_TRUE(error_);
  EXPECT_THAT(error_->localizedDescription, HasSubstr("kSMDomainUserLaunchd"));
}

// What jobs are given as authorization.
class AuthorizationProbe final : public Jobs {
 public:
  std::expected<void, NSError> SMJobSubmit(std::string_view, const Value&,
                                           const AuthorizationRef* authorization) override {
    given.push_back(authorization);
    return {};
  }
  std::expected<void, NSError> SMJobRemove(std::string_view, std::string_view,
                                           const AuthorizationRef* authorization, bool) override {
    given.push_back(authorization);
    return {};
  }
  Value SMJobCopyDictionary(std::string_view, std::string_view) override { return {}; }
  std::vector<const AuthorizationRef*> given;
};

TEST_F(JobControlTest, TheAuthorizationIsForTheSystemsDomainAlone) {
  AuthorizationProbe probe;
  ORBServiceManager manager(platform(probe));
  manager.backgroundServiceDidFinishLaunching({});  // Has its rights, but no catalogue.
  for (const char* domain : {kSMDomainSystemLaunchd, "kSMDomainUserLaunchd"}) {
    EXPECT_TRUE(manager.submitJobRequest(job(), domain, error_));
    EXPECT_TRUE(manager.submitJobRequest(kAgent, domain, error_));
  }
  EXPECT_TRUE(manager.unloadJobFromLaunchD(kAgent));
  ASSERT_EQ(probe.given.size(), 5u);
  const AuthorizationRef* const rights = probe.given[0];
  EXPECT_NE(rights, nullptr);
  EXPECT_THAT(probe.given, ElementsAre(rights, rights, nullptr, nullptr, rights));
}

TEST_F(JobControlTest, TheServicesAreTheCatalogues) {
  EXPECT_EQ(manager().services(), catalogue()["Services"]);
}

TEST_F(JobControlTest, AProcessIsToldWhileItRuns) {
  request(job());
  EXPECT_EQ(manager().pidForService(kAgent), Value(process(kAgent)));
  EXPECT_TRUE(manager().lastExitStatusForService(kAgent).isNil());
}

TEST_F(JobControlTest, AnUnknownLabelHasNoProcessAndNoExitStatus) {
  EXPECT_TRUE(manager().pidForService("com.example.unknown").isNil());
  EXPECT_TRUE(manager().lastExitStatusForService("com.example.unknown").isNil());
}

TEST_F(JobControlTest, NilHasNoProcessAndNoExitStatus) {
  EXPECT_TRUE(manager().pidForService(std::nullopt).isNil());
  EXPECT_TRUE(manager().lastExitStatusForService(std::nullopt).isNil());
}

TEST_F(JobControlTest, AnEndedJobHasItsLastExitStatusAndNoProcess) {
  Dictionary throttled = *job().dictionary();
  throttled.set("ThrottleInterval", 60);
  request(throttled);
  jobs_.endProcess(kAgent, {ExitStatus::Kind::kExited, 3});
  EXPECT_TRUE(manager().pidForService(kAgent).isNil());
  EXPECT_EQ(manager().lastExitStatusForService(kAgent), Value(3 << 8));
}

}  // namespace
