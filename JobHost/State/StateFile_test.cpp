#include "JobHost/State/StateFile.h"

#include <algorithm>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateFile_fixture.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::ErrorCode;
using platform::ExitStatus;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(StateFileTest, TheNextHostReadsWhatThisOneWrote) {
  auto file = create();
  const Value dictionary =
      Dictionary{{"Label", "a"}, {"Program", "/bin/true"}, {"More", platform::Array{1, 2.5, "x"}}};
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kLoaded, dictionary));
  const StartFields started = start(*file, "a", 123, platform::Instant(5s));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
  start(*file, "b", 124);
  ASSERT_TRUE(file->appendEnded("b", ExitStatus{ExitStatus::Kind::kExited, 3}));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("c")));
  start(*file, "c", 125);
  ASSERT_TRUE(file->appendEnded("c", std::nullopt));
  start(*file, "c", 126);
  ASSERT_TRUE(file->appendRemoving("c"));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("d")));
  ASSERT_TRUE(file->appendRemoving("d"));
  ASSERT_TRUE(file->appendRemoved("d"));

  file.reset();
  for (int i = 0; i < 2; ++i) {  // As it was written, then as it was compacted.
    auto opened = open();
    EXPECT_THAT(opened.warnings, IsEmpty());
    ASSERT_THAT(labelsOf(opened.jobs), ElementsAre("a", "b", "c"));
    const auto& [a, b, c] = std::tie(opened.jobs[0], opened.jobs[1], opened.jobs[2]);
    EXPECT_EQ(a.origin, JobOrigin::kLoaded);
    EXPECT_EQ(a.dictionary, dictionary);
    EXPECT_TRUE(a.runs);
    EXPECT_EQ(a.lastStart, started);
    EXPECT_EQ(started, (StartFields{123, 0, 77, 88, std::chrono::nanoseconds(5s).count()}));
    EXPECT_FALSE(a.lastEnd);
    EXPECT_FALSE(a.isBeingRemoved);
    EXPECT_EQ(b.origin, JobOrigin::kSubmitted);
    EXPECT_FALSE(b.runs);
    EXPECT_EQ(b.lastEnd, Ending(ExitStatus{ExitStatus::Kind::kExited, 3}));
    EXPECT_TRUE(c.runs);
    EXPECT_EQ(c.lastStart->process, 126);
    EXPECT_EQ(c.lastEnd, std::optional<Ending>(Ending()));
    EXPECT_TRUE(c.isBeingRemoved);
    ASSERT_TRUE(opened.file->compact(opened.jobs));
  }
}

TEST_F(StateFileTest, ARemovedDaemonIsRememberedBesideANewJobWithItsLabel) {
  auto file = create();
  for (const char* label : {"again", "gone", "going"}) {
    ASSERT_TRUE(file->appendSubmitted(JobOrigin::kLoaded, jobNamed(label)));
    ASSERT_TRUE(file->appendRemovedByClient(label));
  }
  ASSERT_TRUE(file->appendRemoved("gone"));
  ASSERT_TRUE(file->appendRemoved("again"));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("again")));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kLoaded, jobNamed("replaced")));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("replaced")));
  file.reset();
  for (int i = 0; i < 2; ++i) {  // As it was written, then as it was compacted.
    auto opened = open();
    EXPECT_THAT(opened.warnings, IsEmpty());
    EXPECT_THAT(opened.removedByClient, ElementsAre("again", "going", "gone", "replaced"));
    ASSERT_THAT(labelsOf(opened.jobs), ElementsAre("going", "again", "replaced"));
    EXPECT_TRUE(opened.jobs[0].isBeingRemoved);
    EXPECT_FALSE(opened.jobs[1].isBeingRemoved);
    EXPECT_FALSE(opened.jobs[2].isBeingRemoved);
    ASSERT_TRUE(opened.file->compact(opened.jobs, opened.removedByClient));
  }
}

TEST_F(StateFileTest, EveryEndIsReadAsItWasWritten) {
  using Kind = ExitStatus::Kind;
  for (const ProcessEnd end :
       {ProcessEnd({Kind::kExited, 0}), ProcessEnd({Kind::kExited, 255}),
        ProcessEnd({Kind::kSignalled, 1}), ProcessEnd({Kind::kSignalled, 64}),
        ProcessEnd({Kind::kSignalled, 11}, true)}) {
    EXPECT_EQ(processEndOf(waitStatusOf(end)), end);
  }
}

TEST_F(StateFileTest, ATornRecordIsCutOffAndTheFileSetAside) {
  auto file = create();
  std::vector<std::size_t> ends{file->mark()};
  for (const char* label : {"a", "b", "c"}) {
    ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed(label)));
    ends.push_back(file->mark());
  }
  file.reset();
  const std::string whole = contents();
  ASSERT_EQ(whole.size(), ends.back());
  for (std::size_t size = ends.front(); size < whole.size(); ++size) {
    put(whole.substr(0, size));
    const auto opened = open();
    std::size_t jobs = 0;
    while (ends[jobs + 1] <= size) ++jobs;
    EXPECT_EQ(opened.jobs.size(), jobs) << size;
    const bool isTorn = size != ends[jobs];
    ASSERT_EQ(opened.warnings.size(), isTorn ? 1 : 0) << size;
    if (!isTorn) continue;
    EXPECT_THAT(opened.warnings[0], HasSubstr("torn"));
    // It keeps its name until a new file replaces it: if the host is killed now, the next one must
    // find it again.
    EXPECT_EQ(contents(), whole.substr(0, size));
    ASSERT_TRUE(opened.file->compact(opened.jobs));
    struct stat status{};
    ASSERT_EQ(::stat((path_ + ".set-aside").c_str(), &status), 0);
    EXPECT_EQ(static_cast<std::size_t>(status.st_size), size);
  }
}

TEST_F(StateFileTest, AFileThatEndsInsideItsHeaderIsNotTrusted) {
  create().reset();
  const std::string header = contents();
  for (std::size_t size = 0; size < header.size(); ++size) {
    put(header.substr(0, size));
    expectSetAside(size == 0 ? "empty" : size < 13 ? "no state file" : "not from this boot");
  }
}

TEST_F(StateFileTest, AChangedByteCostsOneRecordAtMost) {
  auto file = create();
  const std::size_t header = file->mark();
  std::vector<std::size_t> ends;
  for (const char* label : {"a", "b", "c"}) {
    ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed(label)));
    ends.push_back(file->mark());
  }
  file.reset();
  const std::string whole = contents();
  for (std::size_t i = 0; i < whole.size(); ++i) {
    std::string changed = whole;
    changed[i] = static_cast<char>(changed[i] ^ 0x40);
    put(changed);
    const auto opened = open();
    ASSERT_EQ(opened.warnings.size(), 1) << i;
    std::vector<std::string> expected{"a", "b", "c"};
    if (i >= header) {
      expected.erase(expected.begin() + (std::ranges::upper_bound(ends, i) - ends.begin()));
    }
    EXPECT_EQ(labelsOf(opened.jobs), expected) << i;
    for (const StoredJob& job : opened.jobs) EXPECT_EQ(job.dictionary, jobNamed(job.label));
    EXPECT_THAT(opened.warnings[0], HasSubstr(i < ends[1] ? "damaged; the sound" : "torn")) << i;
  }
}

TEST_F(StateFileTest, AProcessWhoseSubmissionIsLostIsKept) {
  auto file = create();
  const std::size_t before = file->mark();
  for (const char* label : {"runs", "ended"}) {
    ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed(label)));
  }
  const std::size_t after = file->mark();
  const StartFields started = start(*file, "runs", 123);
  start(*file, "ended", 124);
  ASSERT_TRUE(file->appendEnded("ended", std::nullopt));
  file.reset();
  std::string changed = contents();
  std::fill(changed.begin() + static_cast<std::ptrdiff_t>(before),
            changed.begin() + static_cast<std::ptrdiff_t>(after), '\0');
  put(changed);
  const auto opened = open();
  ASSERT_THAT(labelsOf(opened.jobs), ElementsAre("runs"));
  EXPECT_EQ(opened.jobs[0].lastStart, started);
  EXPECT_EQ(opened.jobs[0].dictionary, StoredJob::lostDefinition("runs"));
  ASSERT_EQ(opened.warnings.size(), 1);
  EXPECT_THAT(opened.warnings[0], HasSubstr(std::to_string(after - before) + " bytes from byte " +
                                            std::to_string(before) + " on are damaged"));
  EXPECT_THAT(opened.warnings[0], HasSubstr("lost is the definition of \"ended\", \"runs\""));
}

TEST_F(StateFileTest, AFileOfAnotherBootIsSetAside) {
  ASSERT_TRUE(create()->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  expectSetAside("not from this boot", "21111111-2222-3333-4444-555555555555");
}

TEST_F(StateFileTest, AFileOfAnotherPidNamespaceIsSetAside) {
  ASSERT_TRUE(create()->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  expectSetAside("from another pid namespace", std::string(kBoot, 36) + "/2.9");
}

TEST_F(StateFileTest, AFileOfAnotherFormatIsSetAside) {
  put(std::string(4096, 'x'));
  expectSetAside("no state file");
}

TEST_F(StateFileTest, AFileThatOthersCouldHaveWrittenIsSetAside) {
  create().reset();
  for (const mode_t mode : {0602, 0620, 0644, 0700}) {
    ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
    expectSetAside("mode");
  }
}

TEST_F(StateFileTest, AFileOfAnotherUserIsSetAside) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  create().reset();
  ASSERT_EQ(::chown(path_.c_str(), 1, 1), 0);
  expectSetAside("belongs to uid 1");
}

TEST_F(StateFileTest, ASymbolicLinkIsSetAsideAndItsTargetUntouched) {
  create().reset();
  const std::string target = folder_.path("target");
  ASSERT_EQ(::rename(path_.c_str(), target.c_str()), 0);
  ASSERT_EQ(::symlink(target.c_str(), path_.c_str()), 0);
  expectSetAside("symbolic link");
  struct stat status{};
  EXPECT_EQ(::lstat(target.c_str(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST_F(StateFileTest, APipeIsSetAsideWithoutWaiting) {
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  expectSetAside("not a regular file");
}

TEST_F(StateFileTest, AFolderIsSetAside) {
  ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
  expectSetAside("not a regular file");
}

TEST_F(StateFileTest, AFileLargerThanAllowedIsSetAsideUnread) {
  constexpr auto kMost = static_cast<off_t>(StateFile::kMaximumBytes);
  for (const auto& [size, reason] : {std::pair{kMost - 1, "no state file"},
                                     {kMost, "no state file"},
                                     {kMost + 1, "is larger than"}}) {
    put("");
    ASSERT_EQ(::truncate(path_.c_str(), size), 0);
    expectSetAside(reason);
  }
}

// The lock takes the last descriptor.
TEST_F(StateFileTest, AFileThatCannotBeOpenedForWantOfDescriptorsStays) {
  ASSERT_TRUE(create()->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  const std::string before = contents();
  // The block holds nothing else: the sanitizers need descriptors for some of their checks.
  const auto refused = [&] {
    const platform::DescriptorShortage shortage(platform::DescriptorShortage::Left::kOne);
    return StateFile::open(folder_.path(), kBoot, loop_);
  }();
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
  EXPECT_THAT(refused.error().context, HasSubstr(path_));
  EXPECT_EQ(contents(), before);
  const auto opened = open();
  EXPECT_THAT(opened.warnings, IsEmpty());
  EXPECT_THAT(labelsOf(opened.jobs), ElementsAre("a"));
}

TEST_F(StateFileTest, OpenWaitsForAnotherHostButNotForever) {
  auto first = create();
  const platform::Instant before = loop_.now();
  const auto refused = StateFile::open(folder_.path(), kBoot, loop_);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kDenied);
  EXPECT_THAT(refused.error().context, HasSubstr("another job host"));
  EXPECT_GE(loop_.now() - before, StateFile::kLockTimeOut);
  EXPECT_LT(loop_.now() - before, StateFile::kLockTimeOut + 1s);

  loop_.scheduleOutsideEvent(StateFile::kLockTimeOut - 100ms, [&] { first.reset(); });
  EXPECT_TRUE(open().file);
}

TEST(StartTicks, AreTheTwentySecondFieldWhateverTheName) {
  const std::string rest = " S 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 123456 23 24\n";
  for (const char* name : {"1 (sh)", "1 (a b)", "1 (a) S 1 (b)", "1 (()"}) {
    const std::string stat = name + rest;
    EXPECT_EQ(startTicksIn(stat.data(), stat.size()), 123456) << name;
  }
  for (const char* text : {"", ")", "1 (sh", "1 (sh) S 2 3", "1 (sh) "}) {
    EXPECT_EQ(startTicksIn(text, std::strlen(text)), 0) << text;
  }
}

}  // namespace
}  // namespace jobhost
