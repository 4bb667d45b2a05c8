// The output of jobs, with the real job host.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace platform {
namespace {

using testing::HasSubstr;
using testing::Not;

class ServiceOutputTest : public testing::Test {
 protected:
  static constexpr char kLabel[] = "com.example.printer";

  // Submits a job that runs the script; its dictionary names no standard files.
  static void submit(const JobHostRoot& root, const std::string& script,
                     const std::string& keys = {}) {
    const std::string file = root.folder().write(
        "job.plist", "<plist version=\"1.0\"><dict><key>Label</key><string>" + std::string(kLabel) +
                         "</string><key>ProgramArguments</key><array><string>/bin/sh</string>"
                         "<string>-c</string><string>" +
                         script + "</string></array><key>RunAtLoad</key><true/>" + keys +
                         "</dict></plist>");
    const auto submitted = root.control({"jobs", "submit", file});
    EXPECT_EQ(submitted.status, exited(0)) << submitted.errors;
  }

  static std::string fileOf(const JobHostRoot& root) {
    return root.folder().path("log/services/" + std::string(kLabel) + ".log");
  }

  // Waits until the text is in the label's file.
  static void awaitPrinted(const JobHostRoot& root, const std::string& text) {
    const Instant begin = monotonicTime();
    while (monotonicTime() - begin < std::chrono::minutes(1)) {
      if (contentOfFile(fileOf(root)).find(text) != std::string::npos) return;
      ::poll(nullptr, 0, 5);
    }
    ADD_FAILURE() << "not printed: " << text << "\n" << contentOfFile(fileOf(root));
  }
};

TEST_F(ServiceOutputTest, IsKeptByLabel) {
  const JobHostRoot root;
  submit(root, "echo hello; echo trouble &gt;&amp;2; printf 'no end'");
  awaitPrinted(root, "Z hello\n");
  awaitPrinted(root, "Z trouble\n");
  awaitPrinted(root, "Z no end\n");
}

TEST_F(ServiceOutputTest, AFileThatTheJobNamesGetsItsPart) {
  const JobHostRoot root;
  const std::string own = root.folder().path("own");
  submit(root, "echo mine; echo trouble &gt;&amp;2",
         "<key>StandardOutPath</key><string>" + own + "</string>");
  awaitPrinted(root, "Z trouble\n");
  EXPECT_EQ(contentOfFile(own), "mine\n");
  EXPECT_THAT(contentOfFile(fileOf(root)), Not(HasSubstr("mine")));
}

TEST_F(ServiceOutputTest, IsDiscardedIfTheConfigurationSaysSo) {
  const JobHostRoot root("<key>ServiceOutput</key><string>discard</string>");
  submit(root, "readlink /proc/self/fd/2 &gt;" + root.folder().path("link") +
                   "; echo hello; echo done &gt;&gt;" + root.folder().path("link"));
  const Instant begin = monotonicTime();
  while (contentOfFile(root.folder().path("link")).find("done") == std::string::npos &&
         monotonicTime() - begin < std::chrono::minutes(1)) {
    ::poll(nullptr, 0, 5);
  }
  EXPECT_EQ(contentOfFile(root.folder().path("link")), "/dev/null\ndone\n");
  EXPECT_FALSE(std::filesystem::exists(root.folder().path("log/services")));
}

// Without a reader, a pipe would end the process that prints to it.
TEST_F(ServiceOutputTest, AKilledHostEndsNoServiceAndTheNextOneReadsOn) {
  JobHostRoot root;
  const std::string go = root.folder().path("go");
  submit(root, "echo begin; while [ ! -e " + go + " ]; do sleep 0.01; done; echo nobody reads; " +
                   "touch " + go + "ne; exec sleep 1000");
  awaitPrinted(root, "begin");
  root.killHost();
  root.folder().write("go", "");
  const Instant begin = monotonicTime();
  while (!std::filesystem::exists(go + "ne") && monotonicTime() - begin < std::chrono::minutes(1)) {
    ::poll(nullptr, 0, 5);
  }
  ASSERT_TRUE(std::filesystem::exists(go + "ne"));
  EXPECT_THAT(contentOfFile(fileOf(root)), Not(HasSubstr("nobody reads")));
  root.startHost();
  awaitPrinted(root, "Z nobody reads\n");
}

TEST_F(ServiceOutputTest, AReplacedHostLosesNoLine) {
  const JobHostRoot root;
  submit(root,
         "i=0; while [ $i -lt 300 ]; do i=$((i+1)); echo line $i.; sleep 0.005; done; echo end; "
         "exec sleep 1000");
  awaitPrinted(root, "line 1.");
  ASSERT_EQ(::kill(root.hostProcess(), SIGHUP), 0);
  awaitPrinted(root, "Z end\n");
  const std::string printed = contentOfFile(fileOf(root));
  std::size_t at = 0;
  for (int i = 1; i <= 300; ++i) {
    at = printed.find("Z line " + std::to_string(i) + ".\n", at);
    ASSERT_NE(at, printed.npos) << "line " << i << " is missing";
  }
}

TEST_F(ServiceOutputTest, AFloodIsBoundedAndCountedAndHoldsUpNoAnswer) {
  const JobHostRoot root;
  submit(root, "yes 'this is a flood'");
  awaitPrinted(root, "this is a flood");
  EXPECT_EQ(root.control({"jobs", "list"}).status, exited(0));
  EXPECT_EQ(root.control({"jobs", "remove", kLabel}).status, exited(0));
  awaitPrinted(root, "lines were lost here]\n");
  std::uintmax_t bytes = 0;
  for (const auto& each : std::filesystem::directory_iterator(root.folder().path("log/services"))) {
    bytes += each.file_size();
  }
  EXPECT_LE(bytes, std::uintmax_t{3} << 20);
}

}  // namespace
}  // namespace platform
