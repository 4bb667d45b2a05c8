#include "JobHost/Processes/ProgramFile.h"

#include <cerrno>
#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "JobHost/Processes/VerifiedProgram_fixture.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"

namespace jobhost {
namespace {

using platform::ErrorCode;
using platform::VerifiedFile;
using testing::HasSubstr;

class ProgramFileTest : public VerifiedProgramTest {
 protected:
  ErrorCode codeOf(const JobDefinition& job) {
    const auto spawned = spawn(job);
    EXPECT_FALSE(spawned);
    if (!spawned) return spawned.error().code;
    awaitEnd(*spawned);
    return ErrorCode::kSystem;
  }
};

TEST_F(ProgramFileTest, TheVerifiedProgramRuns) {
  const std::string path = makeProgram("program");
  EXPECT_EQ(outputOf(jobOf(path, verify(path))), "text\n");
  EXPECT_EQ(outputOf(jobOf(path, verify(path, /*isSettled=*/false))), "text\n");
}

TEST_F(ProgramFileTest, AReplacedProgramDoesNotRun) {
  const std::string path = makeProgram("program");
  const VerifiedFile verified = verify(path);
  const std::string other = makeProgram("other");
  ASSERT_EQ(::rename(other.c_str(), path.c_str()), 0);
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
  EXPECT_THAT(refusal(jobOf(path, verified)), HasSubstr("is not the file that was verified"));
  EXPECT_EQ(outputOf(jobOf(path, verify(path))), "text\n");
}

TEST_F(ProgramFileTest, AChangedProgramDoesNotRun) {
  const std::string path = makeProgram("program");
  VerifiedFile verified = verify(path);
  ASSERT_EQ(::chmod(path.c_str(), 0700), 0);  // A change of anything may be one of the content.
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
  verified = verify(path);
  ++verified.size;
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
}

TEST_F(ProgramFileTest, AChangeThatLeavesTheTimesIsFoundByTheDigest) {
  const std::string path = makeProgram("program");
  VerifiedFile verified = verify(path, /*isSettled=*/false);
  verified.digest.front() ^= 1;
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
  verified.isSettled = true;
  EXPECT_EQ(outputOf(jobOf(path, verified)), "text\n");
}

TEST_F(ProgramFileTest, AChangeBeforeTheLeaseIsFound) {
  const std::string path = makeProgram("program");
  const VerifiedFile verified = verify(path);
  platform::Result<ProgramFile> program = std::unexpected(platform::Error{});
  platform::withInterceptedSystemCall(
      SYS_openat,
      [&](const platform::InterceptedCall& call) {
        // The file has been found and compared.
        const bool isFound = call.pathAt(1).starts_with("/proc/self/fd/");
        if (isFound) std::filesystem::resize_file(path, verified.size + 1);
        return 0;
      },
      [&] { program = ProgramFile::open(path, verified); });
  ASSERT_FALSE(program);
  EXPECT_EQ(program.error().code, ErrorCode::kChanged);
  EXPECT_THAT(program.error().context, HasSubstr("has been changed since it was verified"));
}

TEST_F(ProgramFileTest, AFileThatIsShorterThanItsDigestedPartDoesNotRun) {
  for (const std::string& path :
       {makeProgram("program"), make("script", "#!/bin/sh\necho one\n")}) {
    VerifiedFile verified = verify(path, /*isSettled=*/false);
    ++verified.digestedBytes;
    EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
    EXPECT_THAT(refusal(jobOf(path, verified)), HasSubstr("has become shorter"));
  }
}

TEST_F(ProgramFileTest, AnUnknownDigestIsVerifiedAgain) {
  const std::string path = makeProgram("program");
  VerifiedFile verified = verify(path, /*isSettled=*/false);
  verified.digestName = "unknown";
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
}

TEST_F(ProgramFileTest, AFileThatHasLostItsVerityDoesNotRun) {
  const std::string path = makeProgram("program");
  VerifiedFile verified = verify(path);
  verified.verity = {1};
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
  EXPECT_THAT(refusal(jobOf(path, verified)), HasSubstr("is not protected by the file system"));
}

TEST_F(ProgramFileTest, AYoungLargeProgramIsVerifiedAgain) {
  const std::string path = makeProgram("program");
  ASSERT_EQ(::truncate(path.c_str(), ProgramFile::kMaximumYoungBytes + 1), 0);
  VerifiedFile verified = stateOf(path);
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
  verified.isSettled = true;
  EXPECT_EQ(outputOf(jobOf(path, verified)), "text\n");
}

TEST_F(ProgramFileTest, AProgramThatIsBeingWrittenDoesNotRun) {
  const std::string path = makeProgram("program");
  const platform::UniqueFd writer(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(codeOf(jobOf(path, verify(path))), ErrorCode::kChanged);
}

TEST_F(ProgramFileTest, NobodyCanOpenItForWritingBeforeItRuns) {
  const std::string path = makeProgram("program");
  const auto program = ProgramFile::open(path, verify(path));
  ASSERT_TRUE(program) << platform::describe(program.error());
  EXPECT_EQ(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
  EXPECT_EQ(errno, EWOULDBLOCK);
}

TEST_F(ProgramFileTest, AfterTheStartNoLeaseIsLeft) {
  const std::string path = makeProgram("program");
  EXPECT_EQ(outputOf(jobOf(path, verify(path))), "text\n");
  EXPECT_TRUE(platform::UniqueFd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)));
}

TEST_F(ProgramFileTest, ALinkInItsPlaceDoesNotRun) {
  const std::string path = makeProgram("program");
  const VerifiedFile verified = verify(path);
  const std::string other = makeProgram("other");
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_EQ(::symlink(other.c_str(), path.c_str()), 0);
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
}

TEST_F(ProgramFileTest, AMissingProgramIsNoChange) {
  const std::string path = makeProgram("program");
  const VerifiedFile verified = verify(path);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kNotFound);
}

TEST_F(ProgramFileTest, AVerifiedScriptRunsFromACopy) {
  // The script changes its own file before the shell has read its second line.
  const std::string path = make(
      "script", "#!/bin/sh\necho 'echo other' >" + folder_.path("script") + "\necho \"mine $1\"\n");
  EXPECT_EQ(outputOf(jobOf(path, verify(path))), "mine text\n");
}

TEST_F(ProgramFileTest, AScriptCannotChangeItsCopy) {
  const std::string path = make("script",
                                "#!/bin/sh\necho other >\"$0\" 2>/dev/null && echo no\n"
                                "echo yes\n");
  EXPECT_THAT(outputOf(jobOf(path, verify(path))), testing::EndsWith("yes\n"));
}

TEST_F(ProgramFileTest, AChangedScriptDoesNotRun) {
  const std::string path = make("script", "#!/bin/sh\necho one\n");
  VerifiedFile verified = verify(path);
  verified.digest.front() ^= 1;
  EXPECT_EQ(codeOf(jobOf(path, verified)), ErrorCode::kChanged);
}

TEST_F(ProgramFileTest, OnlyTheSignedPartOfAScriptRuns) {
  const std::string path = make("script", "#!/bin/sh\necho one\n");
  VerifiedFile verified = verify(path);
  make("script", "#!/bin/sh\necho one\necho more\n");
  const VerifiedFile longer = verify(path);
  const auto digest = verified.digest;
  const auto bytes = verified.digestedBytes;
  verified = longer;
  verified.digest = digest;
  verified.digestedBytes = bytes;
  EXPECT_EQ(outputOf(jobOf(path, verified)), "one\n");
}

TEST_F(ProgramFileTest, ALargeScriptIsRefused) {
  const std::string path = make("script", "#!/bin/sh\n");
  ASSERT_EQ(::truncate(path.c_str(), ProgramFile::kMaximumScriptBytes + 1), 0);
  EXPECT_THAT(refusal(jobOf(path, stateOf(path))), HasSubstr("is a script of more than 16 MiB"));
}

TEST_F(ProgramFileTest, AScriptHasItsSocketAsUsual) {
  const std::string path = make("script", "#!/bin/sh\nls -l /proc/$$/fd/3\n");
  JobDefinition job = jobOf(path, verify(path));
  job.machServices = {"com.example.service"};
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const platform::UniqueFd first(ends[0]);
  const platform::UniqueFd second(ends[1]);
  EXPECT_THAT(outputOf(job, {ends[0]}), HasSubstr("pipe:"));
}

TEST_F(ProgramFileTest, AProgramInheritsNoDescriptorOfItself) {
  const std::string path = make("list", contentOf("/bin/ls"));
  JobDefinition job = jobOf(path, verify(path));
  job.arguments = {"ls", "/proc/self/fd"};
  EXPECT_EQ(outputOf(job), "0\n1\n2\n3\n");  // 3 is the folder's.
}

}  // namespace
}  // namespace jobhost
