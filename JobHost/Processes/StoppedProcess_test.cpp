// A stopped process gets no SIGTERM before it is continued.

#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::ExitStatus;
using platform::UniqueFd;

class StoppedProcessTest : public testing::Test {
 protected:
  StoppedProcessTest() {
    JobDefinition job;
    job.label = "com.example.job";
    job.program = "/bin/sleep";
    job.arguments = {"sleep", "1000"};
    std::vector<std::uint8_t> record =
        makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    auto process = processes_->start(job, {file_.get(), record}, {}, [this](Ending ending) {
      end_ = ending;
      loop_->stop();
    });
    EXPECT_TRUE(process);
    process_ = *std::move(process);
    EXPECT_EQ(::kill(number(), SIGSTOP), 0);
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(number()), nullptr, WSTOPPED), 0);
  }

  ~StoppedProcessTest() override {
    if (!end_) static_cast<void>(process_->signalGroup(SIGKILL));
  }

  platform::ProcessId number() const { return process_->identity().process; }

  // The kernel shows the environment of a program a moment after it was executed.
  std::unique_ptr<MarkedProcess> awaitMarked() {
    std::unique_ptr<MarkedProcess> marked;
    const auto search = loop_->startTimer(1ms, platform::RunLoop::Repeat::kEvery, [&] {
      auto found = processes_->findMarked(
          [this](const Processes::Marked& each) { return each.process == number(); });
      if (!found || found->empty()) return;
      marked = std::move(found->front());
      loop_->stop();
    });
    const auto deadline =
        loop_->startTimer(60s, platform::RunLoop::Repeat::kOnce, [this] { loop_->stop(); });
    loop_->run();
    return marked;
  }

  void expectEnd() {
    const auto deadline = loop_->startTimer(60s, platform::RunLoop::Repeat::kOnce, [this] {
      ADD_FAILURE() << "the process is still stopped";
      loop_->stop();
    });
    loop_->run();
    EXPECT_EQ(end_, Ending(ExitStatus{ExitStatus::Kind::kSignalled, SIGTERM}));
  }

  platform::TemporaryFolder folder_;
  const UniqueFd file_{::open(folder_.path("state").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
  std::unique_ptr<platform::AsioRunLoop> loop_ = std::move(*platform::AsioRunLoop::create());
  std::unique_ptr<LinuxProcesses> processes_ = std::move(*LinuxProcesses::create(*loop_, 1024, 7));
  std::optional<Ending> end_;
  std::unique_ptr<JobProcess> process_;
};

TEST_F(StoppedProcessTest, EndsWhenItsGroupIsAskedTo) {
  EXPECT_TRUE(process_->signalGroup(SIGTERM));
  expectEnd();
}

TEST_F(StoppedProcessTest, EndsWhenItIsAskedToAlone) {
  EXPECT_TRUE(process_->signalLeader(SIGTERM));
  expectEnd();
}

TEST_F(StoppedProcessTest, EndsWhenItIsFoundByItsMark) {
  const auto marked = awaitMarked();
  ASSERT_TRUE(marked);
  EXPECT_TRUE(marked->signal(SIGTERM));
  expectEnd();
}

}  // namespace
}  // namespace jobhost
