// A host without space for its state file, or without a valid one.

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/JobHostFixture_contract.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using platform::Value;
using testing::ElementsAre;

// The new state file can't be made, as on a full disk.
class JobHostWithoutSpace : public JobHostTest {
 protected:
  const std::string obstacle_ = root_.path("run/vantor/launchd.state.new");
  void putObstacle() {
    ASSERT_EQ(::mkdir(obstacle_.c_str(), 0700), 0);
    root_.write("run/vantor/launchd.state.new/file", "");
  }
};

TEST_F(JobHostWithoutSpace, AHostThatCannotCompactUsesTheLastHostsFile) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  loop_.advanceBy(20s);
  killHost();
  putObstacle();
  processes_.end(102);
  startHost();
  EXPECT_EQ(sink_.count("the file of the host before is used further"), 1);
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_EQ(pid("com.example.b"), Value(103));
  ASSERT_TRUE(submit(job("com.example.c")));
  ASSERT_TRUE(**removeLater("com.example.a"));
  for (int i = 0; i < 2; ++i) {
    restartHost();
    EXPECT_THAT(host_->labels(), ElementsAre("com.example.b", "com.example.c"));
    EXPECT_EQ(pid("com.example.b"), Value(103));
    EXPECT_EQ(pid("com.example.c"), Value(104));
  }
  EXPECT_EQ(starts(), 4);
}

TEST_F(JobHostWithoutSpace, AHostThatCannotReplaceATornFileUsesItsValidRecords) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  loop_.advanceBy(20s);
  killHost();
  std::ofstream(root_.path("run/vantor/launchd.state"), std::ios::app) << "torn";
  putObstacle();
  processes_.end(102);
  startHost();
  EXPECT_EQ(sink_.count("torn"), 1);
  EXPECT_EQ(sink_.count("the file of the host before is used further"), 1);
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_EQ(pid("com.example.b"), Value(103));
  ASSERT_TRUE(submit(job("com.example.c")));
  restartHost();
  EXPECT_EQ(sink_.count("torn"), 1);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b", "com.example.c"));
  EXPECT_EQ(starts(), 4);
}

// Everything that would make the file longer or replace it fails.
class JobHostRemovalWithoutSpace : public JobHostWithoutSpace {
 protected:
  std::uintmax_t fileSize() const {
    return std::filesystem::file_size(root_.path("run/vantor/launchd.state"));
  }
  // But for so many bytes.
  void fillDisk(std::uintmax_t room = 0) {
    putObstacle();
    disk_.emplace(fileSize() + room);
  }
  void emptyDisk() {
    disk_.reset();
    std::filesystem::remove_all(obstacle_);
  }
  std::optional<platform::FullDisk> disk_;
};

TEST_F(JobHostRemovalWithoutSpace, IsKnownToTheNextHost) {
  ASSERT_TRUE(submit(job("com.example.kept")));
  ASSERT_TRUE(submit(job("com.example.removed")));
  fillDisk();
  EXPECT_TRUE(removeLater("com.example.removed")->value());
  restartHost();
  loop_.advanceBy(1min);  // The removal is finished.
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.kept"));
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostRemovalWithoutSpace, EndsAProcessWhoseStartWasNotRecorded) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  fillDisk();
  endLast();
  EXPECT_EQ(pid("com.example.a"), Value(102));
  processes_.obeysTermination = false;
  removeLater("com.example.a");
  restartHost();
  loop_.advanceBy(1h);
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostRemovalWithoutSpace, KeepsADaemonsFileFromTheNextHost) {
  killHost();
  root_.write("Library/LaunchDaemons/d.plist", daemonFile("com.example.d", kKeepAlive));
  startHost();
  ASSERT_EQ(starts(), 1);
  fillDisk();
  EXPECT_TRUE(removeLater("com.example.d")->value());
  restartHost();
  loop_.advanceBy(1min);
  EXPECT_TRUE(host_->labels().empty());
  disk_.reset();
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 1);
}

// The disk is full at each byte of the records of an end, a start, a removal and a submission.
class JobHostOnAFullDisk : public JobHostRemovalWithoutSpace {
 protected:
  // Returns whether all records had room.
  bool play(std::uintmax_t room) {
    const auto unthrottled = [](const char* label) {
      return job(label, {{"ThrottleInterval", 0}});
    };
    EXPECT_TRUE(submit(unthrottled("a")));
    const auto process = static_cast<platform::ProcessId>(*pid("a").integer());
    EXPECT_TRUE(submit(unthrottled("removed")));
    loop_.advanceBy(1h);
    const std::uintmax_t size = fileSize();
    fillDisk(room);
    processes_.end(process);
    loop_.runReady();
    EXPECT_TRUE(removeLater("removed")->value());
    const bool isAccepted = submit(unthrottled("new")).has_value();
    const bool hasRoom = isAccepted && fileSize() < size + room;
    const std::vector<std::string> labels = host_->labels();
    EXPECT_EQ(labels, isAccepted ? std::vector<std::string>({"a", "new"}) : std::vector{"a"s});
    const auto processes = [&] { return std::pair(pid("a"), pid("new")); };
    const auto before = processes();
    const std::size_t startsBefore = starts();
    for (const bool isStillFull : {true, false}) {
      if (!isStillFull) emptyDisk();
      restartHost();
      loop_.advanceBy(
          1min);  // The removal is finished, and the file is replaced if that is possible.
      EXPECT_EQ(host_->labels(), labels);
      EXPECT_EQ(processes(), before);
    }
    EXPECT_EQ(starts(), startsBefore);
    for (const std::string& label : labels) EXPECT_TRUE(removeLater(label)->value());
    return hasRoom;
  }
};

TEST_F(JobHostOnAFullDisk, NothingRunsTwiceAndNoRemovalIsForgotten) {
  for (std::uintmax_t room = 0; !HasFailure(); ++room) {
    SCOPED_TRACE(room);
    if (play(room)) break;
  }
}

TEST_F(JobHostTest, AFullDiskStopsNoKnownJob) {
  const platform::Dictionary unthrottled{{"ThrottleInterval", 0}};
  for (const char* label : {"com.example.kept", "com.example.removed"}) {
    ASSERT_TRUE(submit(job(label, unthrottled)));
  }
  {
    const platform::FullDisk disk(10);
    processes_.end(101);
    loop_.advanceBy(1h);
    EXPECT_EQ(pid("com.example.kept"), Value(103));
    EXPECT_TRUE(removeLater("com.example.removed")->value());
    EXPECT_FALSE(submit(job("com.example.new")));
    EXPECT_EQ(sink_.count("their state is written when that is possible"), 1);
  }
  loop_.advanceBy(10s);
  restartHost();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.kept"));
  EXPECT_EQ(pid("com.example.kept"), Value(103));
  EXPECT_EQ(starts(), 3);
}

TEST_F(JobHostTest, AStartOnAFullDiskIsKnownToTheNextHost) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  {
    const platform::FullDisk disk(10);
    endLast();
    EXPECT_EQ(pid("com.example.a"), Value(102));
    restartHost();
  }
  EXPECT_EQ(pid("com.example.a"), Value(102));
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 2);
}

// The kinds of state file that are set aside as a whole.
struct Untrusted {
  const char* name;
  void (*make)(const std::string& path);
};

// The records carry their boot as well as the header does.
void writeStateOf(const std::string& path, std::string_view bootId) {
  const auto payload =
      submittedPayload(JobOrigin::kSubmitted, platform::Dictionary{{"Label", "com.example.old"}});
  ASSERT_TRUE(payload);
  std::ofstream file(path);
  for (const auto& bytes :
       {stateFileHeader(bootId), makeRecord(RecordKind::kSubmitted, *payload, bootMark(bootId))}) {
    file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  }
}

class JobHostWithoutAnyFile : public JobHostTest, public testing::WithParamInterface<Untrusted> {
 protected:
  void startWithoutRoom() {
    ASSERT_TRUE(submit(job("com.example.a")));
    killHost();
    GetParam().make(root_.path("run/vantor/launchd.state"));
    root_.write("Library/LaunchDaemons/d.plist",
                "<plist><dict><key>Label</key><string>com.example.d</string><key>Program</key>"
                "<string>/bin/true</string><key>RunAtLoad</key><true/></dict></plist>");
    disk_.emplace(10);
    startHost();
  }

  std::optional<platform::FullDisk> disk_;
};

TEST_P(JobHostWithoutAnyFile, StartsOnAFullDiskAndTakesJobsOnceThereIsSpace) {
  startWithoutRoom();
  EXPECT_EQ(sink_.count("launchd.state: not trusted: "), 1);
  EXPECT_EQ(sink_.count("no job is started until it can be written"), 1);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a"));
  EXPECT_EQ(pid("com.example.a"), Value(101));
  const std::size_t before = starts();
  const auto refused = submit(job("com.example.b"));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().localizedDescription, "job \"com.example.b\": writing " +
                                                      root_.path("run/vantor/launchd.state.new") +
                                                      ": " + std::strerror(ENOSPC));
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), before);

  disk_.reset();
  ASSERT_TRUE(submit(job("com.example.b")));
  loop_.advanceBy(10s);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b", "com.example.d"));
  EXPECT_EQ(starts(), before + 2);
  restartHost();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b", "com.example.d"));
  EXPECT_EQ(starts(), before + 2);
}

TEST_P(JobHostWithoutAnyFile, ADaemonThatWaitedForSpaceDoesNotReplaceAClientsJob) {
  startWithoutRoom();
  disk_.reset();
  ASSERT_TRUE(submit(job("com.example.d", {{"Nice", 5}})));
  const Value process = pid("com.example.d");
  const std::size_t before = starts();
  loop_.advanceBy(10s);
  EXPECT_EQ(host_->copy("com.example.d")["Nice"], Value(5));
  EXPECT_EQ(pid("com.example.d"), process);
  EXPECT_EQ(starts(), before);
  EXPECT_EQ(sink_.count("\"com.example.d\": its file is not loaded: a client has submitted"), 1);
}

TEST_P(JobHostWithoutAnyFile, ADaemonThatWaitedForSpaceDoesNotReplaceAWaitingSubmission) {
  startWithoutRoom();
  disk_.reset();
  ASSERT_TRUE(submit(job("com.example.d")));
  processes_.obeysTermination = false;
  removeLater("com.example.d");
  const Answer submitted = submitLater(job("com.example.d", {{"Nice", 5}}));
  loop_.advanceBy(10s);
  endLast();
  EXPECT_TRUE(*submitted);
  EXPECT_EQ(host_->copy("com.example.d")["Nice"], Value(5));
  EXPECT_EQ(sink_.count("\"com.example.d\": its file is not loaded: a client has submitted"), 1);
}

TEST_P(JobHostWithoutAnyFile, ADaemonWhoseFileIsDeletedWhileItWaitsIsNotLoaded) {
  startWithoutRoom();
  disk_.reset();
  ASSERT_EQ(::unlink(root_.path("Library/LaunchDaemons/d.plist").c_str()), 0);
  root_.write("Library/LaunchDaemons/e.plist",
              "<plist><dict><key>Label</key><string>com.example.e</string><key>Program</key>"
              "<string>/bin/true</string></dict></plist>");
  loop_.advanceBy(10s);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.e"));
}

TEST_P(JobHostWithoutAnyFile, StopsOnAFullDisk) {
  startWithoutRoom();
  bool isDown = false;
  host_->shutDown([&] { isDown = true; });
  loop_.advanceBy(1h);
  EXPECT_TRUE(isDown);
  disk_.reset();
  loop_.advanceBy(1h);
  EXPECT_TRUE(host_->labels().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Each, JobHostWithoutAnyFile,
    testing::Values(
        Untrusted{"Empty", [](const auto& path) { EXPECT_EQ(::truncate(path.c_str(), 0), 0); }},
        Untrusted{"OfAnotherBoot", [](const auto& path) { writeStateOf(path, "22222222/1.9"); }},
        Untrusted{"Foreign", [](const auto& path) { EXPECT_EQ(::chmod(path.c_str(), 0666), 0); }},
        Untrusted{"ALink",
                  [](const auto& path) {
                    EXPECT_EQ(::unlink(path.c_str()), 0);
                    EXPECT_EQ(::symlink("/dev/null", path.c_str()), 0);
                  }}),
    [](const auto& made) { return made.param.name; });

}  // namespace
}  // namespace jobhost
