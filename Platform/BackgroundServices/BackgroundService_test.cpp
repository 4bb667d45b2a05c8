#include "Platform/BackgroundServices/BackgroundService.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/BackgroundServices/FakeServiceReadiness.h"
#include "Platform/Testing/BackgroundServices/FakeTerminationSignals.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Signals that can't be watched.
class NoSignals final : public TerminationSignals {
 public:
  Result<std::unique_ptr<RunLoopHandle>> watchTermination(RunLoop::Callback) override {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "no descriptor is left"});
  }
};

class BackgroundServiceTest : public testing::Test {
 protected:
  class Service final : public VGBackgroundServiceDelegate {
   public:
    explicit Service(BackgroundServiceTest& test) : test_(test) { test_.note("made"); }
    ~Service() override { test_.note("destroyed"); }
    void backgroundServiceDidFinishLaunching(const Value& notification) override {
      EXPECT_TRUE(notification.isNil());
      test_.note("did finish launching");
      if (test_.whileLaunching_) test_.whileLaunching_();
    }
    void backgroundServiceWhenReady(std::move_only_function<void()> ready) override {
      if (test_.readyAfter_ == Duration::zero()) return ready();
      timer_ = test_.loop_.startTimer(test_.readyAfter_, RunLoop::Repeat::kOnce, std::move(ready));
    }
    void backgroundServiceWillTerminate(const Value& notification) override {
      EXPECT_TRUE(notification.isNil());
      test_.note("will terminate");
      if (test_.whileTerminating_) test_.whileTerminating_();
    }

   private:
    BackgroundServiceTest& test_;
    std::unique_ptr<RunLoopHandle> timer_;
  };

  BackgroundServiceTest() {
    classes_.add("Service", [this] { return std::make_unique<Service>(*this); });
    classes_.add("Unmakeable", [] { return nullptr; });
  }

  // Notes also the number of announcements so far, which shows their order among the calls.
  void note(const std::string& text) {
    happened_.push_back(text + " " + std::to_string(readiness_.announcements().size()));
  }

  int run(const char* className) {
    const char* const arguments[] = {"program", "--option", nullptr};
    return VGBackgroundServiceMain(className, 2, arguments, host_);
  }

  VirtualRunLoop loop_;
  FakeTerminationSignals signals_{loop_};
  FakeServiceReadiness readiness_;
  BackgroundServiceClasses classes_;
  std::vector<std::string> reported_;
  BackgroundServiceHost host_{loop_, signals_, readiness_, classes_,
                              [this](const std::string& error) { reported_.push_back(error); }};
  std::function<void()> whileLaunching_;
  Duration readyAfter_{};
  std::function<void()> whileTerminating_;
  std::vector<std::string> happened_;
};

TEST_F(BackgroundServiceTest, ReadinessIsAnnouncedWhenTheInstanceIsReady) {
  readyAfter_ = 2s;
  whileLaunching_ = [this] {
    loop_.scheduleOutsideEvent(1s, [this] { note("after a second"); });
    loop_.scheduleOutsideEvent(3s, [this] {
      note("after three");
      signals_.request();
    });
  };
  EXPECT_EQ(run("Service"), EXIT_SUCCESS);
  EXPECT_THAT(happened_, ElementsAre("made 0", "did finish launching 0", "after a second 0",
                                     "after three 1", "will terminate 2", "destroyed 2"));
}

TEST_F(BackgroundServiceTest, OneInstanceLivesFromLaunchToTermination) {
  whileLaunching_ = [this] {
    loop_.scheduleOutsideEvent(24h, [this] {
      note("asked to end");
      signals_.request();
    });
  };
  const Instant start = loop_.now();
  EXPECT_EQ(run("Service"), 0);
  EXPECT_EQ(loop_.now() - start, 24h);
  EXPECT_THAT(happened_, ElementsAre("made 0", "did finish launching 0", "asked to end 1",
                                     "will terminate 2", "destroyed 2"));
  EXPECT_THAT(readiness_.announcements(), ElementsAre("READY=1", "STOPPING=1"));
}

TEST_F(BackgroundServiceTest, TheLoopServesTheInstanceUntilTheRequest) {
  std::unique_ptr<RunLoopHandle> early;
  std::unique_ptr<RunLoopHandle> late;
  whileLaunching_ = [&] {
    early = loop_.startTimer(1s, RunLoop::Repeat::kOnce, [this] { note("early timer"); });
    late = loop_.startTimer(3s, RunLoop::Repeat::kOnce, [this] { note("late timer"); });
    loop_.scheduleOutsideEvent(2s, [this] { signals_.request(); });
  };
  EXPECT_EQ(run("Service"), 0);
  EXPECT_THAT(happened_, ElementsAre("made 0", "did finish launching 0", "early timer 1",
                                     "will terminate 2", "destroyed 2"));
}

TEST_F(BackgroundServiceTest, ARequestDuringLaunchingTakesEffectAfterwards) {
  whileLaunching_ = [this] {
    signals_.request();
    note("still launching");
  };
  EXPECT_EQ(run("Service"), 0);
  EXPECT_THAT(happened_, ElementsAre("made 0", "did finish launching 0", "still launching 0",
                                     "will terminate 2", "destroyed 2"));
}

TEST_F(BackgroundServiceTest, ARequestBeforeLaunchingIsNotLost) {
  classes_.add("Early", [this] {
    signals_.request();
    return std::make_unique<Service>(*this);
  });
  EXPECT_EQ(run("Early"), 0);
  EXPECT_THAT(happened_,
              ElementsAre("made 0", "did finish launching 0", "will terminate 2", "destroyed 2"));
}

TEST_F(BackgroundServiceTest, FurtherRequestsTerminateOnlyOnce) {
  whileLaunching_ = [this] {
    signals_.request();
    signals_.request();
  };
  whileTerminating_ = [this] { signals_.request(); };
  EXPECT_EQ(run("Service"), 0);
  // Without a watch the fake would end the test here.
  signals_.request();
  EXPECT_THAT(happened_,
              ElementsAre("made 0", "did finish launching 0", "will terminate 2", "destroyed 2"));
}

TEST_F(BackgroundServiceTest, AnUnknownClassIsAnErrorWithAdvice) {
  testing::internal::CaptureStderr();
  const int status = run("Servise");
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(status, 0);
  EXPECT_EQ(
      text,
      "VGBackgroundServiceMain: there is no class \"Servise\"; add it to the table of classes "
      "that main() fills\n");
  EXPECT_THAT(reported_, ElementsAre(text.substr(0, text.size() - 1)));
  EXPECT_THAT(happened_, IsEmpty());
  EXPECT_THAT(readiness_.announcements(), IsEmpty());
}

TEST_F(BackgroundServiceTest, AnInstanceThatCanNotBeMadeIsAnError) {
  testing::internal::CaptureStderr();
  const int status = run("Unmakeable");
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("\"Unmakeable\""));
  EXPECT_NE(status, 0);
  EXPECT_THAT(readiness_.announcements(), IsEmpty());
}

TEST_F(BackgroundServiceTest, WithoutATerminationWatchNothingIsLaunched) {
  NoSignals none;
  BackgroundServiceHost host{loop_, none, readiness_, classes_};
  testing::internal::CaptureStderr();
  const int status = VGBackgroundServiceMain("Service", 0, nullptr, host);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("no descriptor is left"));
  EXPECT_NE(status, 0);
  EXPECT_THAT(happened_, IsEmpty());
}

TEST_F(BackgroundServiceTest, AFailedAnnouncementIsOnlyReported) {
  readiness_.fail();
  whileLaunching_ = [this] { signals_.request(); };
  testing::internal::CaptureStderr();
  const int status = run("Service");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "VGBackgroundServiceMain: nobody listens; going on without\n"
            "VGBackgroundServiceMain: nobody listens; going on without\n");
  EXPECT_THAT(reported_, testing::SizeIs(2));
  EXPECT_EQ(status, 0);
  EXPECT_THAT(happened_,
              ElementsAre("made 0", "did finish launching 0", "will terminate 2", "destroyed 2"));
}

}  // namespace
}  // namespace platform
