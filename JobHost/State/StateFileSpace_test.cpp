// Records that are too large, full disks, and files that can't be replaced.

#include <cerrno>
#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateFile_fixture.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"

namespace jobhost {
namespace {

using platform::Dictionary;
using platform::ErrorCode;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(StateFileTest, ARecordBeyondTheMaximumSizeIsRejected) {
  auto file = create();
  const Value large =
      Dictionary{{"Label", "a"}, {"Fill", platform::Data(std::size_t{1} << 20, 'x')}};
  platform::Result<std::size_t> result;
  std::size_t before = 0;
  while (result) {
    before = file->mark();
    result = file->appendSubmitted(JobOrigin::kSubmitted, large);
  }
  EXPECT_EQ(result.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(file->mark(), before);
  EXPECT_GT(before, StateFile::kMaximumBytes - (std::size_t{2} << 20));
  // The file is filled to the last byte, and not one more.
  const std::size_t left = StateFile::kMaximumBytes - before;
  EXPECT_TRUE(file->appendRemoving(std::string(left - sizeof(RecordHeader), 'x')));
  EXPECT_EQ(file->mark(), StateFile::kMaximumBytes);
  EXPECT_FALSE(file->appendRemoving(""));
}

TEST_F(StateFileTest, AStartBeyondTheMaximumSizeIsNotRecorded) {
  auto file = create();
  const std::size_t needed = file->makeStartRecord("a", {}).size();
  for (const std::size_t left : {needed + 1, needed, needed - 1}) {
    ASSERT_TRUE(file->compact({}));
    const std::size_t fill = StateFile::kMaximumBytes - file->mark() - left;
    ASSERT_TRUE(file->appendRemoving(std::string(fill - sizeof(RecordHeader), 'x')));
    auto record = file->makeStartRecord("a", {});
    EXPECT_EQ(file->ticketFor(record).file >= 0, left >= needed) << left;
    EXPECT_EQ(file->isBehind(), left < needed) << left;
  }
}

TEST_F(StateFileTest, AFileThatIsBehindTakesNoRecordBeforeItsRewrite) {
  auto file = create();
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  const std::string before = contents();
  {
    const platform::FullDisk disk(before.size() + 1);
    EXPECT_FALSE(file->appendEnded("a", Ending()));
  }
  EXPECT_TRUE(file->isBehind());
  EXPECT_TRUE(file->wantsCompaction());
  EXPECT_FALSE(file->appendRemoved("a"));
  EXPECT_FALSE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
  auto record = file->makeStartRecord("a", {});
  EXPECT_EQ(file->ticketFor(record).file, -1);
  EXPECT_EQ(contents(), before);
  ASSERT_TRUE(file->compact({}));
  EXPECT_FALSE(file->isBehind());
  EXPECT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
}

TEST_F(StateFileTest, ARemovalWithoutSpaceChangesTheJobsSubmission) {
  auto file = create();
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kLoaded, jobNamed("b")));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("c")));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));  // again
  start(*file, "a", 123);
  const std::size_t size = contents().size();
  {
    const platform::FullDisk disk(size);
    EXPECT_FALSE(file->appendRemoving("a"));
    EXPECT_FALSE(file->appendRemovedByClient("b"));
    EXPECT_FALSE(file->appendRemoving("unknown"));
    EXPECT_TRUE(file->isBehind());
  }
  EXPECT_EQ(contents().size(), size);
  file.reset();
  const auto next = open();
  EXPECT_THAT(next.warnings, IsEmpty());
  ASSERT_THAT(labelsOf(next.jobs), ElementsAre("a", "b", "c"));
  EXPECT_TRUE(next.jobs[0].isBeingRemoved);
  EXPECT_TRUE(next.jobs[0].runs);
  EXPECT_TRUE(next.jobs[1].isBeingRemoved);
  EXPECT_FALSE(next.jobs[2].isBeingRemoved);
  EXPECT_THAT(next.removedByClient, ElementsAre("b"));
}

TEST_F(StateFileTest, ASubmissionIsChangedAfterACompactionOrACut) {
  for (const bool isCut : {false, true}) {
    auto file = create();
    StoredJob job;
    job.label = "a";
    job.dictionary = jobNamed("a");
    ASSERT_TRUE(file->compact({&job, 1}));
    const std::size_t mark = file->mark();
    if (isCut) {
      ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
      ASSERT_TRUE(file->cutBackTo(mark));
    }
    ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
    {
      const platform::FullDisk disk(contents().size());
      EXPECT_FALSE(file->appendRemoving("a"));
    }
    file.reset();
    const auto next = open();
    EXPECT_THAT(next.warnings, IsEmpty());
    ASSERT_THAT(labelsOf(next.jobs), ElementsAre("a", "b"));
    EXPECT_TRUE(next.jobs[0].isBeingRemoved);
    EXPECT_FALSE(next.jobs[1].isBeingRemoved);
  }
}

TEST_F(StateFileTest, ARecordWithinASubmissionIsNotChanged) {
  auto file = create();
  const auto inner = submittedPayload(JobOrigin::kSubmitted, jobNamed("a"));
  ASSERT_TRUE(inner);
  const auto record = makeRecord(RecordKind::kSubmitted, *inner, bootMark(kBoot));
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  ASSERT_TRUE(file->appendSubmitted(
      JobOrigin::kSubmitted,
      Dictionary{{"Label", "b"}, {"Fill", platform::Data(record.begin(), record.end())}}));
  {
    const platform::FullDisk disk(contents().size());
    EXPECT_FALSE(file->appendRemoving("a"));
  }
  file.reset();
  const auto next = open();
  EXPECT_THAT(next.warnings, IsEmpty());
  ASSERT_THAT(labelsOf(next.jobs), ElementsAre("a", "b"));
  EXPECT_TRUE(next.jobs[0].isBeingRemoved);
  EXPECT_FALSE(next.jobs[1].isBeingRemoved);
}

TEST_F(StateFileTest, APartOfAnUnrecordedStartIsCutOff) {
  auto file = create();
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  const std::string before = contents();
  auto record = file->makeStartRecord("a", {});
  const StartTicket ticket = file->ticketFor(record);
  ASSERT_EQ(::write(ticket.file, record.data(), 10), 10);
  file->countStart(record, ENOSPC);
  EXPECT_TRUE(file->isBehind());
  EXPECT_EQ(contents(), before);
}

TEST_F(StateFileTest, ADiscardedFileIsGone) {
  auto file = create();
  file->discard();
  EXPECT_NE(::access(path_.c_str(), F_OK), 0);
  EXPECT_FALSE(file->isWritable());
}

TEST_F(StateFileTest, AJobBeyondTheRemainingCostIsRejected) {
  auto file = create();
  const std::size_t before = file->mark();
  const auto bytes = file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a"));
  ASSERT_TRUE(bytes);
  EXPECT_EQ(*bytes, file->mark() - before);
  const std::size_t cost = StateFile::costOf("a", *bytes);
  EXPECT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b"), cost + 1));
  EXPECT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b"), cost));
  const std::size_t mark = file->mark();
  const auto refused = file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b"), cost - 1);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(file->mark(), mark);
}

TEST_F(StateFileTest, AJobsCostIsItsMaximumSizeInACompactedFile) {
  auto file = create();
  const std::size_t empty = file->mark();
  StoredJob job;
  job.label = "com.example.a";
  job.dictionary = jobNamed(job.label);
  ASSERT_TRUE(file->compact({&job, 1}));
  const std::size_t submission = file->mark() - empty;
  job.lastStart = StartFields{1, 0, 2, 3, 4};
  job.lastEnd = Ending();
  job.isBeingRemoved = true;
  ASSERT_TRUE(file->compact({&job, 1}));
  EXPECT_EQ(file->mark() - empty, StateFile::costOf(job.label, submission));
}

TEST_F(StateFileTest, ARecordWithoutSpaceLeavesTheFileUnchanged) {
  auto file = create();
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  const std::string before = contents();
  for (const std::size_t room : {0, 1, 20}) {
    const platform::FullDisk disk(before.size() + room);
    EXPECT_FALSE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
    EXPECT_EQ(contents(), before);
  }
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("c")));
  file.reset();
  EXPECT_THAT(labelsOf(open().jobs), ElementsAre("a", "c"));
}

TEST_F(StateFileTest, AFailedReplacementLeavesTheOldFileInUse) {
  auto file = create();
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  StoredJob job;
  job.label = "b";
  job.dictionary = jobNamed("b");
  {
    const platform::FullDisk disk(10);
    EXPECT_FALSE(file->compact({&job, 1}));
  }
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("c")));
  file.reset();
  EXPECT_THAT(labelsOf(open().jobs), ElementsAre("a", "c"));
}

TEST_F(StateFileTest, AReplacementThatCannotTakeItsPlaceIsRemoved) {
  auto file = create();
  ASSERT_EQ(::unlink(path_.c_str()), 0);
  ASSERT_EQ(::mkdir(path_.c_str(), 0700), 0);
  EXPECT_FALSE(file->compact({}));
  EXPECT_EQ(::access((path_ + ".new").c_str(), F_OK), -1);
}

TEST_F(StateFileTest, WithoutAFileEachRecordFailsWithTheReason) {
  for (const char* const content : {"", "no state file"}) {
    put(content);
    auto opened = open();
    StateFile& file = *opened.file;
    EXPECT_EQ(opened.warnings.size(), 1);
    EXPECT_FALSE(file.isWritable());
    {
      const platform::FullDisk disk(10);
      EXPECT_FALSE(file.compact({}));
      EXPECT_TRUE(file.wantsCompaction());
      const auto refused = file.appendSubmitted(JobOrigin::kSubmitted, jobNamed("a"));
      ASSERT_FALSE(refused);
      EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
      EXPECT_EQ(platform::describe(refused.error()),
                "writing " + path_ + ".new: " + std::strerror(ENOSPC));
      auto record = file.makeStartRecord("a", {});
      EXPECT_EQ(file.ticketFor(record).file, -1);
      EXPECT_FALSE(file.appendRemoving("a"));
      EXPECT_EQ(::access((path_ + ".new").c_str(), F_OK), -1);
    }
    ASSERT_TRUE(file.compact({}));
    EXPECT_FALSE(file.wantsCompaction());
    EXPECT_TRUE(file.appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  }
}

TEST_F(StateFileTest, ATornFileThatCannotBeReplacedIsRepairedInPlace) {
  ASSERT_TRUE(create()->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  const std::string whole = contents();
  for (const bool repairsAtOnce : {true, false}) {
    put(whole + "torn");
    auto opened = open();
    ASSERT_EQ(opened.warnings.size(), 1);
    EXPECT_THAT(opened.warnings[0], HasSubstr("torn"));
    EXPECT_TRUE(opened.file->isWritable());
    {
      const platform::FullDisk disk(10);
      EXPECT_FALSE(opened.file->compact(opened.jobs));
      EXPECT_EQ(contents(), whole + "torn");
      if (repairsAtOnce) {
        ASSERT_TRUE(opened.file->repair());
        EXPECT_EQ(contents(), whole);
      }
    }
    ASSERT_TRUE(opened.file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
    opened.file.reset();
    // Otherwise records would also be appended to the file set aside.
    EXPECT_EQ(::access((path_ + ".set-aside").c_str(), F_OK), -1);
    const auto next = open();
    EXPECT_THAT(next.warnings, IsEmpty());
    EXPECT_THAT(labelsOf(next.jobs), ElementsAre("a", "b"));
  }
}

TEST_F(StateFileTest, ATornFileThatIsReplacedLaterStaysSetAside) {
  ASSERT_TRUE(create()->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  const std::string torn = contents() + "torn";
  put(torn);
  auto opened = open();
  ASSERT_TRUE(opened.file->compact(opened.jobs));
  ASSERT_TRUE(opened.file->repair());
  ASSERT_TRUE(opened.file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("b")));
  EXPECT_EQ(platform::contentOfFile(path_ + ".set-aside"), torn);
}

TEST_F(StateFileTest, TheRecordOfAFailedStartIsCutOff) {
  auto file = create();
  const std::string before = contents();
  const std::size_t mark = file->mark();
  ASSERT_TRUE(file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("a")));
  start(*file, "a", 123);
  ASSERT_TRUE(file->cutBackTo(mark));
  EXPECT_EQ(contents(), before);
}

}  // namespace
}  // namespace jobhost
