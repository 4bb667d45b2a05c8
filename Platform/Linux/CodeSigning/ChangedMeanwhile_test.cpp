// Files that change while they are checked: the verdict is unknown, and that of the next check
// counts.

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"

namespace platform {
namespace {

using testing::EndsWith;

class ChangedMeanwhileTest : public testing::Test {
 protected:
  // Checks the code. Before the first system call of this number for which `isIt` is true,
  // `change` is called.
  CodeSigningResult<void> checkWith(unsigned int number,
                                    const std::function<bool(const InterceptedCall&)>& isIt,
                                    const std::function<void()>& change, const std::string& path) {
    bool isChanged = false;
    CodeSigningResult<void> verdict;
    withInterceptedSystemCall(
        number,
        [&](const InterceptedCall& call) {
          if (!isChanged && isIt(call)) {
            isChanged = true;
            change();
          }
          return 0;
        },
        [&] { verdict = bed_.check(path); });
    EXPECT_TRUE(isChanged);
    return verdict;
  }
  static std::function<bool(const InterceptedCall&)> opening(const std::string& path) {
    return [path](const InterceptedCall& call) { return call.pathAt(1) == path; };
  }
  static void expectUnknown(const CodeSigningResult<void>& verdict, const std::string& reason) {
    ASSERT_FALSE(verdict);
    EXPECT_EQ(verdict.error().status, kErrnoStatusBase + EAGAIN);
    EXPECT_EQ(verdictOf(verdict.error()), CodeVerdict::kUnknown);
    EXPECT_THAT(verdict.error().reason, EndsWith(reason));
  }

  CodeSigningBed bed_;
};

TEST_F(ChangedMeanwhileTest, AProgramThatIsReplacedIsCheckedAgain) {
  const std::string path = bed_.makeProgram("bin/program");
  const std::string other = bed_.makeProgram("bin/other");
  const auto replace = [&] { ASSERT_EQ(std::rename(other.c_str(), path.c_str()), 0); };
  expectUnknown(checkWith(SYS_openat, opening(path), replace, path),
                "program: was replaced while it was looked at");
  EXPECT_TRUE(bed_.check(path));
}

TEST_F(ChangedMeanwhileTest, AProgramThatIsWrittenToIsCheckedAgain) {
  const std::string path = bed_.makeProgram("bin/program");
  const auto touch = [&] { ASSERT_EQ(::chmod(path.c_str(), 0700), 0); };
  expectUnknown(checkWith(
                    SYS_pread64, [](const auto&) { return true; }, touch, path),
                "program: was changed while it was read");
  EXPECT_TRUE(bed_.check(path));
}

TEST_F(ChangedMeanwhileTest, AProgramThatIsCutIsCheckedAgain) {
  const std::string path = bed_.makeProgram("bin/program");
  expectUnknown(checkWith(
                    SYS_pread64, [](const auto&) { return true; },
                    [&] { std::filesystem::resize_file(path, 1); }, path),
                "program: became shorter while it was read");
  EXPECT_EQ(bed_.refusal(path).status, errSecCSUnsigned);
}

// Its size changes too, because the times of a young file may stay.
TEST_F(ChangedMeanwhileTest, AProgramThatIsOverwrittenIsCheckedAgain) {
  const std::string path = bed_.makeProgram("bin/program");
  const auto overwrite = [&] {
    std::fstream(path, std::ios::in | std::ios::out | std::ios::binary).seekp(5) << "other";
    std::ofstream(path, std::ios::app | std::ios::binary) << "more";
  };
  expectUnknown(checkWith(
                    SYS_pread64, [](const auto&) { return true; }, overwrite, path),
                "program: was changed while it was checked");
  EXPECT_EQ(bed_.refusal(path).status, errSecCSUnsigned);
}

// An upgrade puts a new bundle in the place of the old one, whose seal has been read.
TEST_F(ChangedMeanwhileTest, ABundleThatIsExchangedIsCheckedAgain) {
  const std::string bundle = bed_.makeBundle("Sample.bundle");
  const std::string next = bed_.makeUnsealedBundle("next/Sample.bundle");
  bed_.folder().write("next/Sample.bundle/Contents/Resources/text", "another");
  ASSERT_TRUE(signBundle(next, CodeSigningBed::signer(), CodeSigningBed::options()));
  const auto exchange = [&] {
    ASSERT_EQ(::renameat2(AT_FDCWD, next.c_str(), AT_FDCWD, bundle.c_str(), RENAME_EXCHANGE), 0);
  };
  expectUnknown(checkWith(
                    SYS_getdents64,
                    [&](const InterceptedCall& call) {
                      const auto folder = "/proc/self/fd/" + std::to_string(call.arguments[0]);
                      return std::filesystem::read_symlink(folder) == bundle;
                    },
                    exchange, bundle),
                "Sample.bundle: was changed while it was checked");
  EXPECT_TRUE(bed_.check(bundle));
}

TEST_F(ChangedMeanwhileTest, AResourceThatVanishesBeforeItIsReadIsCheckedAgain) {
  const std::string bundle = bed_.makeBundle("Sample.bundle");
  const std::string text = bundle + "/Contents/Resources/text";
  const auto remove = [&] { std::filesystem::remove(text); };
  expectUnknown(checkWith(SYS_openat, opening(text), remove, bundle),
                "text: No such file or directory");
  EXPECT_EQ(bed_.refusal(bundle).status, errSecCSBadResource);
}

TEST_F(ChangedMeanwhileTest, AResourceThatIsWrittenToIsCheckedAgain) {
  const std::string bundle = bed_.makeBundle("Sample.bundle");
  const std::string text = bundle + "/Contents/Resources/text";
  const auto change = [&] { std::filesystem::resize_file(text, 1); };
  expectUnknown(checkWith(SYS_openat, opening(text), change, bundle),
                "text: was changed while it was looked at");
  EXPECT_EQ(bed_.refusal(bundle).status, errSecCSBadResource);
}

TEST_F(ChangedMeanwhileTest, AResourceThatVanishesIsCheckedAgain) {
  const std::string bundle = bed_.makeBundle("Sample.bundle");
  const std::string program = bundle + "/Contents/Linux/program";
  // The folder's entries are read before its files are looked at.
  const auto remove = [&] { std::filesystem::remove(program); };
  bool isSecond = false;
  expectUnknown(checkWith(
                    SYS_getdents64,
                    [&](const InterceptedCall& call) {
                      // The second call for the folder finds its end.
                      const auto folder = "/proc/self/fd/" + std::to_string(call.arguments[0]);
                      const bool isIt =
                          std::filesystem::read_symlink(folder) == bundle + "/Contents/Linux";
                      return isIt && std::exchange(isSecond, true);
                    },
                    remove, bundle),
                "program: No such file or directory");
  EXPECT_EQ(bed_.refusal(bundle).status, errSecCSBadResource);
}

}  // namespace
}  // namespace platform
