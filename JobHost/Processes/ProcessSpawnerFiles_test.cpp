// The standard files of jobs.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"

namespace jobhost {
namespace {

using platform::UniqueFd;
using testing::ElementsAre;

// The events of a file since it is watched.
std::vector<std::uint32_t> eventsOf(const UniqueFd& watch) {
  std::array<inotify_event, 16> events{};
  const ssize_t size = ::read(watch.get(), events.data(), sizeof events);
  std::vector<std::uint32_t> masks;
  for (std::size_t i = 0;
       (i + 1) * sizeof(inotify_event) <= static_cast<std::size_t>(std::max<ssize_t>(size, 0)); ++i)
    masks.push_back(events[i].mask);
  return masks;
}

// On a frozen file system an open that may create the file blocks, even if the file exists.
TEST_F(ProcessSpawnerTest, AFileThatExistsIsOpenedOnce) {
  std::ofstream(folder_.path("output")) << "before\n";
  const UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_GE(::inotify_add_watch(watch.get(), folder_.path("output").c_str(),
                                IN_OPEN | IN_MODIFY | IN_CLOSE_WRITE),
            0);
  JobDefinition job = script("echo after");
  job.standardErrorPath = "/dev/null";
  const auto spawned = spawn(job);
  ASSERT_TRUE(spawned);
  awaitEnd(*spawned);
  EXPECT_THAT(eventsOf(watch), ElementsAre(IN_OPEN, IN_MODIFY, IN_CLOSE_WRITE));
  EXPECT_EQ(output(), "before\nafter\n");
}

class UnnamedFilesTest : public ProcessSpawnerTest {
 protected:
  UniqueFd openOutput() const {
    return UniqueFd(
        ::open(folder_.path("output").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  }

  std::string printedBy(const JobDefinition& job, const JobOutput& output) {
    record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    const auto spawned = spawner_->spawn(job, {file_.get(), record_}, {}, -1, output);
    EXPECT_TRUE(spawned);
    if (spawned) awaitEnd(*spawned);
    return this->output();
  }

  JobDefinition silentScript() const {
    JobDefinition job = script("echo out; echo err >&2");
    job.standardOutPath = job.standardErrorPath = "/dev/null";
    return job;
  }
};

TEST_F(UnnamedFilesTest, BothGoToTheJobsOutput) {
  const auto open = [this](const JobDefinition&, const JobAccount&) { return openOutput(); };
  EXPECT_EQ(printedBy(silentScript(), open), "out\nerr\n");
}

TEST_F(UnnamedFilesTest, AFileThatTheJobNamesStays) {
  const auto open = [this](const JobDefinition&, const JobAccount&) { return openOutput(); };
  JobDefinition job = silentScript();
  job.standardOutPath = folder_.path("own");
  EXPECT_EQ(printedBy(job, open), "err\n");
  EXPECT_EQ(platform::contentOfFile(folder_.path("own")), "out\n");
}

TEST_F(UnnamedFilesTest, AJournalThatHasEndedEndsNoJob) {
  const auto ended = [](const JobDefinition&, const JobAccount&) {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const UniqueFd journal(ends[0]);
    return UniqueFd(ends[1]);
  };
  JobDefinition job = silentScript();
  job.arguments = {"sh", "-c", "echo lost; echo alive >" + folder_.path("output")};
  EXPECT_EQ(printedBy(job, ended), "alive\n");
}

TEST_F(UnnamedFilesTest, AJobStartsWithoutItsOutput) {
  const auto none = [](const JobDefinition&, const JobAccount&) { return UniqueFd(); };
  JobDefinition job = silentScript();
  job.arguments = {"sh", "-c", "readlink /proc/self/fd/2 >" + folder_.path("output")};
  EXPECT_EQ(printedBy(job, none), "/dev/null\n");
}

}  // namespace
}  // namespace jobhost
