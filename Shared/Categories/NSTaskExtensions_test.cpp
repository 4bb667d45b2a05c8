// One file, because each test runs on both kinds of platform by the same fixture.

#include "Shared/Categories/NSTaskExtensions.h"

#include <array>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Logger/Logger.h"
#include "Platform/Linux/Processes/LinuxTasks.h"
#include "Platform/SystemFacts/CurrentUser.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Processes/FakeTasks.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Texts/StringFormat.h"

namespace {

using namespace NSTaskExtensions;
using namespace platform;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using Stream = FakeTasks::Stream;

constexpr char kPath[] = "/usr/bin/tool";
constexpr int kUntouched = 77;

// The parameter is the kind of platform: true if its tasks call readability handlers.
class LaunchTaskTest : public testing::TestWithParam<bool> {
 protected:
  struct Outcome {
    bool succeeded = false;
    std::string output = "untouched";
    std::string error = "untouched";
    int status = kUntouched;
  };

  Outcome launch(Task& task, std::optional<std::string_view> path,
                 const std::vector<std::string>* arguments = nullptr,
                 ArgumentLogging logging = ArgumentLogging::kShown) {
    Outcome outcome;
    outcome.succeeded = launchTask(task, path, arguments, &outcome.output, &outcome.error,
                                   &outcome.status, logging);
    return outcome;
  }

  Outcome launch(FakeTasks::Program program) {
    tasks_.setProgram(kPath, std::move(program));
    return launch(*task_, kPath);
  }

  // The lines at this level, without file and line.
  std::vector<std::string> lines(AslLevel level) {
    std::vector<std::string> lines;
    for (const auto& message : sink_.messagesAtLevel(level)) {
      EXPECT_THAT(message.text, testing::StartsWith("[NSTaskExtensions.cpp:"));
      lines.push_back(message.text.substr(message.text.find(' ') + 1));
    }
    return lines;
  }

  std::string launchLine(std::string_view arguments) {
    return stringWithFormat("Launching task /usr/bin/tool with args: %@ uid: %d, euid: %d",
                            arguments, currentUserId(), currentEffectiveUserId());
  }

  NotificationCenter center_;
  FakeTasks tasks_{center_, GetParam()};
  std::unique_ptr<Task> task_ = tasks_.newTask();
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  LoggerBinding binding_{log_};
};

INSTANTIATE_TEST_SUITE_P(Handlers, LaunchTaskTest, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(Notices, LaunchTaskTest, testing::Values(false));

TEST_P(LaunchTaskTest, TheLimitsDoNotChange) {
  EXPECT_EQ(kMaximumStdOutBufferSize, 32000u);
  EXPECT_EQ(kMaximumStdErrBufferSize, 1000u);
  EXPECT_EQ(kMaximumStdOutLoggingSize, 100u);
}

TEST_P(LaunchTaskTest, APathThatIsNilOrWhiteSpaceStartsNothing) {
  for (const std::optional<std::string_view> path :
       {std::optional<std::string_view>(), std::optional<std::string_view>(""),
        std::optional<std::string_view>("   ")}) {
    const Outcome outcome = launch(*task_, path);
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.status, kUntouched);
    EXPECT_EQ(outcome.output, "untouched");
    EXPECT_EQ(outcome.error, "untouched");
    EXPECT_EQ(task_->launchPath(), "");
  }
  EXPECT_THAT(sink_.messages(), IsEmpty());
  EXPECT_THAT(tasks_.launches(), IsEmpty());
}

TEST_P(LaunchTaskTest, ATaskServesOneRun) {
  EXPECT_TRUE(launch({}).succeeded);
  sink_.clear();
  const Outcome again = launch(*task_, kPath);
  EXPECT_FALSE(again.succeeded);
  EXPECT_EQ(again.status, kUntouched);
  EXPECT_EQ(tasks_.launches().size(), 1u);
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_P(LaunchTaskTest, AConfiguredTaskIsRefused) {
  tasks_.setProgram(kPath, {});
  task_->setLaunchPath("/other");
  EXPECT_FALSE(launch(*task_, kPath).succeeded);
  EXPECT_EQ(task_->launchPath(), "/other");
  EXPECT_THAT(tasks_.launches(), IsEmpty());
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_P(LaunchTaskTest, ARunReturnsOutputAndStatus) {
  const Outcome outcome = launch({.whileRunning = {{Stream::kOutput, "out "},
                                                   {Stream::kError, "err "},
                                                   {Stream::kOutput, "more"},
                                                   {Stream::kError, "yet"}},
                                  .atItsEnd = {}});
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "out more");
  EXPECT_EQ(outcome.error, "err yet");
}

TEST_P(LaunchTaskTest, ANonZeroStatusIsAFailureWithOutput) {
  for (const int status : {1, 9, 255}) {
    task_ = tasks_.newTask();
    const Outcome outcome =
        launch({.whileRunning = {{Stream::kOutput, "out"}}, .atItsEnd = {}, .status = status});
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.output, "out");
    EXPECT_EQ(outcome.error, "");
  }
}

TEST_P(LaunchTaskTest, TheResultsAreOptional) {
  tasks_.setProgram(kPath, {.whileRunning = {{Stream::kOutput, "out"}}, .atItsEnd = {}});
  EXPECT_TRUE(launchTask(*task_, kPath, nullptr, nullptr, nullptr, nullptr));
  task_ = tasks_.newTask();
  EXPECT_FALSE(launchTask(*task_, "/missing", nullptr, nullptr, nullptr, nullptr));
}

TEST_P(LaunchTaskTest, ArgumentsArePassedAndLogged) {
  tasks_.setProgram(kPath, {});
  const std::vector<std::string> arguments{"-a", "b c", ""};
  std::string output;
  EXPECT_TRUE(launchTask(*task_, kPath, &arguments, &output, nullptr, nullptr));
  EXPECT_EQ(tasks_.launches().at(0).arguments, arguments);
  EXPECT_THAT(lines(ASL_LEVEL_INFO), ElementsAre(launchLine("[-a, b c, ]")));
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG),
              ElementsAre("Termination status: 0\n\tstdout: \n\tstderr: \n\tfor task: "
                          "/usr/bin/tool with args: [-a, b c, ]"));
}

TEST_P(LaunchTaskTest, WithoutArgumentsTheLogSaysSo) {
  EXPECT_TRUE(launch({}).succeeded);
  EXPECT_THAT(lines(ASL_LEVEL_INFO), ElementsAre(launchLine("(null)")));
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG), ElementsAre(EndsWith("with args: (null)")));
}

TEST_P(LaunchTaskTest, SuppressedArgumentsReachNoLine) {
  tasks_.setProgram(kPath, {});
  const std::vector<std::string> arguments{"secret"};
  EXPECT_TRUE(launch(*task_, kPath, &arguments, ArgumentLogging::kSuppressed).succeeded);
  EXPECT_THAT(lines(ASL_LEVEL_INFO), ElementsAre(launchLine("<suppressed>")));
  task_ = tasks_.newTask();
  EXPECT_FALSE(launch(*task_, "/missing", &arguments, ArgumentLogging::kSuppressed).succeeded);
  EXPECT_THAT(lines(ASL_LEVEL_ERR),
              ElementsAre("Launching task /missing with args: <suppressed> failed. launch path not "
                          "accessible"));
  EXPECT_EQ(sink_.count("secret"), 0u);
  EXPECT_EQ(sink_.count("<suppressed>"), 4u);
  EXPECT_EQ(tasks_.launches().at(0).arguments, arguments);
}

TEST_P(LaunchTaskTest, AFailedLaunchReturnsTheException) {
  const std::vector<std::string> arguments{"x"};
  const Outcome outcome = launch(*task_, "/no/such/tool", &arguments);
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.status, -1);
  EXPECT_EQ(outcome.error, "NSInvalidArgumentException: launch path not accessible");
  EXPECT_EQ(outcome.output, "untouched");
  EXPECT_THAT(lines(ASL_LEVEL_ERR),
              ElementsAre("Launching task /no/such/tool with args: [x] failed. launch path not "
                          "accessible"));
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG), IsEmpty());
  EXPECT_EQ(lines(ASL_LEVEL_INFO).size(), 1u);
}

TEST_P(LaunchTaskTest, AnyExceptionIsReturnedByItsName) {
  const Outcome outcome =
      launch({.whileRunning = {}, .atItsEnd = {}, .raised = NSException{"Name", "reason", {}}});
  EXPECT_EQ(outcome.error, "Name: reason");
}

// for as long as the task object lives
TEST_P(LaunchTaskTest, AFailedLaunchLeavesTheHandlersSet) {
  EXPECT_FALSE(launch(*task_, "/missing").succeeded);
  auto* output = dynamic_cast<FakeFileHandle*>(task_->pipes().standardOutput);
  ASSERT_NE(output, nullptr);
  EXPECT_EQ(output->hasHandler(), GetParam());
  output->deliver("late");
  EXPECT_EQ(output->chunksHeld(), 0u);

  FakeFileHandle other(center_, false);
  other.waitForDataInBackgroundAndNotify();
  task_.reset();
  other.deliver("nobody's");
  EXPECT_EQ(other.chunksHeld(), 1u);
}

TEST_P(LaunchTaskTest, WithoutPipesTheLaunchFails) {
  tasks_.setProgram(kPath, {});
  tasks_.setWithoutPipes();
  const Outcome outcome = launch(*task_, kPath);
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.status, -1);
  EXPECT_EQ(outcome.error, "NSInvalidArgumentException: /usr/bin/tool: not launched: a pipe");
}

TEST_P(LaunchTaskTest, TheHandlersAreRemovedAfterTheRun) {
  EXPECT_TRUE(launch({}).succeeded);
  auto* output = dynamic_cast<FakeFileHandle*>(task_->pipes().standardOutput);
  auto* error = dynamic_cast<FakeFileHandle*>(task_->pipes().standardError);
  EXPECT_FALSE(output->hasHandler());
  EXPECT_FALSE(error->hasHandler());
  output->deliver("late");
  EXPECT_EQ(output->chunksHeld(), 1u);
}

TEST_P(LaunchTaskTest, TheLastCharactersOfEachStreamAreKept) {
  const struct {
    std::size_t written;
    std::size_t output;
    std::size_t error;
  } cases[] = {{999, 999, 999},        {1000, 1000, 1000},     {1001, 1001, 1000},
               {31'999, 31'999, 1000}, {32'000, 32'000, 1000}, {32'001, 32'000, 1000},
               {40'000, 32'000, 1000}};
  for (const auto& [written, output, error] : cases) {
    std::string text;
    for (std::size_t i = 0; i < written; ++i) text += static_cast<char>('a' + i % 23);
    task_ = tasks_.newTask();
    const Outcome outcome =
        launch({.whileRunning = {{Stream::kOutput, text}, {Stream::kError, text}}, .atItsEnd = {}});
    EXPECT_EQ(outcome.output, text.substr(written - output)) << written;
    EXPECT_EQ(outcome.error, text.substr(written - error)) << written;
  }
}

TEST_P(LaunchTaskTest, TheLogShowsTheBeginningOfTheKeptOutput) {
  std::string output;
  for (int i = 0; i < 40'000; ++i) output += static_cast<char>('a' + i % 26);
  const std::string kept = output.substr(8000);
  const Outcome outcome = launch({.whileRunning = {{Stream::kOutput, output.substr(0, 30'000)},
                                                   {Stream::kOutput, output.substr(30'000)}},
                                  .atItsEnd = {}});
  EXPECT_EQ(outcome.output, kept);
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG),
              ElementsAre("Termination status: 0\n\tstdout: " + kept.substr(0, 100) +
                          "...< 31900 more characters>\n\tstderr: \n\tfor task: /usr/bin/tool "
                          "with args: (null)"));
}

TEST_P(LaunchTaskTest, AHundredCharactersAreLoggedWhole) {
  const std::string hundred = "\u00e9" + std::string(99, 'x');
  EXPECT_TRUE(launch({.whileRunning = {{Stream::kOutput, hundred}}, .atItsEnd = {}}).succeeded);
  task_ = tasks_.newTask();
  EXPECT_TRUE(
      launch({.whileRunning = {{Stream::kOutput, hundred + "y"}}, .atItsEnd = {}}).succeeded);
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG),
              ElementsAre(HasSubstr("stdout: " + hundred + "\n\tstderr"),
                          HasSubstr("stdout: " + hundred + "...< 1 more characters>\n\tstderr")));
}

TEST_P(LaunchTaskTest, StandardErrorIsLoggedWhole) {
  const std::string error(1000, 'e');
  launch({.whileRunning = {{Stream::kError, error}}, .atItsEnd = {}});
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG), ElementsAre(HasSubstr("stderr: " + error + "\n\tfor")));
}

TEST_P(LaunchTaskTest, AChunkThatIsNotUtf8AddsNothing) {
  const Outcome outcome = launch({.whileRunning = {{Stream::kOutput, "a"},
                                                   {Stream::kOutput, "cut \xe2\x82"},
                                                   {Stream::kOutput, "\xac rest"},
                                                   {Stream::kOutput, "z\u20ac"}},
                                  .atItsEnd = {}});
  EXPECT_EQ(outcome.output, "az\u20ac");
}

TEST_P(LaunchTaskTest, ThePipesAreReadToTheirEnd) {
  const Outcome outcome =
      launch({.whileRunning = {{Stream::kOutput, "a"}},
              .atItsEnd = {{Stream::kOutput, "b"}, {Stream::kError, "e"}, {Stream::kOutput, "c"}}});
  EXPECT_EQ(outcome.output, "abc");
  EXPECT_EQ(outcome.error, "e");
  const std::string stdoutLine = "Added remaining data to stdout string after task termination.";
  const std::string stderrLine = "Added remaining data to stderr string after task termination.";
  if (GetParam()) {
    EXPECT_EQ(lines(ASL_LEVEL_DEBUG).size(), 1u);
  } else {
    EXPECT_THAT(lines(ASL_LEVEL_DEBUG),
                ElementsAre(stdoutLine, stdoutLine, stderrLine, HasSubstr("Termination status")));
  }
}

// Deliberate, and only on a platform without readability handlers.
TEST_P(LaunchTaskTest, OnlyOneFinalChunkOfStandardErrorIsTaken) {
  const Outcome outcome = launch(
      {.whileRunning = {}, .atItsEnd = {{Stream::kError, "first "}, {Stream::kError, "second"}}});
  EXPECT_EQ(outcome.error, GetParam() ? "first second" : "first ");
}

// Deliberate, and only on a platform without readability handlers: after the chunk of standard
// error, standard output is read again, and the result is taken for standard error.
TEST_P(LaunchTaskTest, AfterStandardErrorsChunkStandardOutputIsRead) {
  const Outcome outcome = launch({.whileRunning = {},
                                  .atItsEnd = {{Stream::kOutput, "out"},
                                               {Stream::kOutput, ""},
                                               {Stream::kOutput, "late"},
                                               {Stream::kOutput, "later"},
                                               {Stream::kError, "first "},
                                               {Stream::kError, "second"}}});
  if (GetParam()) {
    EXPECT_EQ(outcome.output, "outlatelater");
    EXPECT_EQ(outcome.error, "first second");
    return;
  }
  EXPECT_EQ(outcome.output, "out");
  EXPECT_EQ(outcome.error, "first latelater");
  const std::string line = "Added remaining data to stderr string after task termination.";
  EXPECT_THAT(lines(ASL_LEVEL_DEBUG),
              ElementsAre("Added remaining data to stdout string after task termination.", line,
                          line, line, HasSubstr("Termination status")));
}

TEST_P(LaunchTaskTest, AnotherHandlesNotificationIsTakenForOutput) {
  FakeFileHandle other(center_, false);
  other.waitForDataInBackgroundAndNotify();
  const Outcome outcome =
      launch({.whileRunning = {{Stream::kOutput, "own "}}, .atItsEnd = {}, .run = [&] {
                other.hold("first ");
                other.deliver("second");
              }});
  if (GetParam()) {
    EXPECT_EQ(outcome.output, "own ");
    EXPECT_EQ(other.chunksHeld(), 2u);
  } else {
    // One read for one notification, and the handle waits again.
    EXPECT_EQ(outcome.output, "own first ");
    EXPECT_EQ(other.chunksHeld(), 1u);
    EXPECT_TRUE(other.isWaitedFor());
  }
}

TEST_P(LaunchTaskTest, ANotificationWithoutAHandleIsIgnored) {
  const Outcome outcome =
      launch({.whileRunning = {{Stream::kOutput, "own"}}, .atItsEnd = {}, .run = [&] {
                center_.post({.name = platform::NSFileHandleDataAvailableNotification});
              }});
  EXPECT_EQ(outcome.output, "own");
}

TEST_P(LaunchTaskTest, StandardErrorDecidesWhetherHandlersAreCalled) {
  EXPECT_FALSE(isSetReadabilityHandlerAvailable(*task_));
  task_->makePipes();
  EXPECT_EQ(isSetReadabilityHandlerAvailable(*task_), GetParam());
}

TEST_P(LaunchTaskTest, RealProgramsAreRunToTheirEnd) {
  VirtualRunLoop loop;
  LinuxTasks tasks(loop, center_, {.callsReadabilityHandlers = GetParam()});
  const auto shell = [&](std::string script) {
    const std::vector<std::string> arguments{"-c", std::move(script)};
    return launch(*tasks.newTask(), "/bin/sh", &arguments);
  };
  Outcome outcome = shell("printf '%40000s' end; echo error >&2; exit 3");
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.output, std::string(31'997, ' ') + "end");
  EXPECT_EQ(outcome.error, "error\n");

  outcome = shell("head -c 5000000 /dev/zero >&2; echo done");
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.output, "done\n");
  EXPECT_EQ(outcome.error, std::string(1000, '\0'));

  EXPECT_EQ(shell("kill -15 $$").status, 15);
  EXPECT_TRUE(shell("yes >&2 & exit 0").succeeded);
  EXPECT_EQ(launch(*tasks.newTask(), "/no/such/tool").error,
            "NSInvalidArgumentException: launch path not accessible");
}

}  // namespace
