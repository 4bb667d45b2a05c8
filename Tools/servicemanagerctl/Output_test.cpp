#include "Tools/servicemanagerctl/Output.h"

#include <cerrno>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

using platform::UniqueFd;

// Redirects standard output to the file for as long as this lives.
class OutputTo {
 public:
  explicit OutputTo(UniqueFd file) : before_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    EXPECT_EQ(::dup2(file.get(), STDOUT_FILENO), STDOUT_FILENO);
  }
  OutputTo(const OutputTo&) = delete;
  OutputTo& operator=(const OutputTo&) = delete;
  ~OutputTo() { ::dup2(before_.get(), STDOUT_FILENO); }

 private:
  const UniqueFd before_;
};

UniqueFd fullDevice() { return UniqueFd(::open("/dev/full", O_WRONLY | O_CLOEXEC)); }

UniqueFd pipeThatNobodyReads() {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  return UniqueFd(ends[1]);
}

struct Concluded {
  bool isPrinted;
  int status;
  std::string errors;
};

Concluded printTo(UniqueFd file, int status = 0) {
  bool isPrinted = false;
  {
    const OutputTo output(std::move(file));
    isPrinted = print("text");
  }
  testing::internal::CaptureStderr();
  const int concluded = concludingStatus(status);
  return {isPrinted, concluded, testing::internal::GetCapturedStderr()};
}

constexpr char kNoSpace[] = "servicemanagerctl: standard output: No space left on device\n";

TEST(OutputTest, WrittenOutputKeepsTheStatus) {
  for (const int status : {0, 3}) {
    const Concluded written = printTo(UniqueFd(::open("/dev/null", O_WRONLY | O_CLOEXEC)), status);
    EXPECT_TRUE(written.isPrinted);
    EXPECT_EQ(written.status, status);
    EXPECT_EQ(written.errors, "");
  }
}

TEST(OutputTest, LostOutputIsAFailureThatIsReportedOnce) {
  const Concluded lost = printTo(fullDevice());
  EXPECT_FALSE(lost.isPrinted);
  EXPECT_EQ(lost.status, kExitFailed);
  EXPECT_EQ(lost.errors, kNoSpace);
  EXPECT_EQ(concludingStatus(0), 0);
}

TEST(OutputTest, AFailedCommandKeepsItsStatus) {
  const Concluded lost = printTo(fullDevice(), kExitUnknownLabel);
  EXPECT_EQ(lost.status, kExitUnknownLabel);
  EXPECT_EQ(lost.errors, kNoSpace);
}

TEST(OutputDeathTest, AClosedReaderIsAFailureUnlessItMayLeave) {
  // Runs in its own process, since letReaderLeave() can't be undone.
  EXPECT_EXIT(
      {
        prepareStandardFiles();
        // Messages go to the standard error that the matcher below checks.
        const auto statusOf = [](UniqueFd file) {
          const OutputTo output(std::move(file));
          return print("text") ? -1 : concludingStatus(0);
        };
        const int alone = statusOf(pipeThatNobodyReads());
        letReaderLeave();
        const int left = statusOf(pipeThatNobodyReads());
        const int full = statusOf(fullDevice());
        const bool isRight = alone == kExitFailed && left == 0 && full == kExitFailed;
        std::_Exit(isRight ? 0 : 1);
      },
      testing::ExitedWithCode(0),
      "^servicemanagerctl: standard output: Broken pipe\n"
      "servicemanagerctl: standard output: No space left on device\n$");
}

TEST(OutputDeathTest, AClosedStandardOutputIsNotReplacedByAnotherFile) {
  EXPECT_EXIT(
      {
        ::close(STDOUT_FILENO);
        prepareStandardFiles();
        const UniqueFd next(::open("/dev/null", O_WRONLY | O_CLOEXEC));
        const bool isRight = next.get() > STDERR_FILENO && !print("text") && errno == EBADF &&
                             concludingStatus(0) == kExitFailed;
        std::_Exit(isRight ? 0 : 1);
      },
      testing::ExitedWithCode(0), "standard output: Bad file descriptor");
}

TEST(OutputTest, ControlCharactersAreEscapedAndOtherTextStays) {
  EXPECT_EQ(escaped("caf\u00e9 \u20ac \U0001F600 \"a\\b\""),
            "caf\u00e9 \u20ac \U0001F600 \"a\\b\"");
  EXPECT_EQ(escaped("\033[2J\r\n\t\x7f"), "\\u001b[2J\\u000d\\n\\u0009\\u007f");
  EXPECT_EQ(escaped("\u0080\u009b\u009f\u00a0"), "\\u0080\\u009b\\u009f\u00a0");
  EXPECT_EQ(escaped("\xff"
                    "a\xc3"),
            "\\ufffda\\ufffd");
  EXPECT_EQ(escaped(""), "");
}

TEST(OutputTest, AnErrorMessagesControlCharactersAreEscaped) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(fail("no \"\033[31m\xff\""), kExitFailed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "servicemanagerctl: no \"\\u001b[31m\\ufffd\"\n");
}

TEST(OutputTest, AMissingPermissionHasItsOwnStatus) {
  using platform::ErrorCode;
  testing::internal::CaptureStderr();
  EXPECT_EQ(fail(platform::Error{ErrorCode::kDenied, EACCES, "/log"}), kExitNotPermitted);
  EXPECT_EQ(fail(platform::Error{ErrorCode::kNotFound, ENOENT, "/log"}), kExitFailed);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "servicemanagerctl: /log: Permission denied\n"
            "servicemanagerctl: /log: No such file or directory\n");
}

class HintsTest : public testing::Test {
 protected:
  ~HintsTest() override { setRootOfHints(""); }
};

TEST_F(HintsTest, NameTheGivenRoot) {
  constexpr char kText[] = "see \"servicemanagerctl list\" and \"servicemanagerctl log\"; x";
  EXPECT_EQ(withRootInHints(kText), kText);
  setRootOfHints("/srv/root");
  EXPECT_EQ(withRootInHints(kText),
            "see \"servicemanagerctl --root /srv/root list\" and \"servicemanagerctl --root "
            "/srv/root log\"; x");
  EXPECT_EQ(withRootInHints("use the servicemanagerctl of it"), "use the servicemanagerctl of it");
}

TEST_F(HintsTest, QuoteTheRootForAShell) {
  setRootOfHints("/a b's");
  testing::internal::CaptureStderr();
  fail("see \"servicemanagerctl list\"");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "servicemanagerctl: see \"servicemanagerctl --root '/a b'\\''s' list\"\n");
}

}  // namespace
