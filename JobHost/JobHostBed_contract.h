#pragma once

// A job host with real processes for tests, below a platform root of its own.

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/JobHost.h"
#include "JobHost/Processes/JobGroups.h"
#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/RuntimeFolders.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {

inline constexpr platform::Duration kTestDeadline = std::chrono::seconds(60);

// A named pipe that jobs write lines to.
class LineChannel {
 public:
  LineChannel(platform::RunLoop& loop, std::string path) : loop_(loop), path_(std::move(path)) {
    EXPECT_EQ(::mkfifo(path_.c_str(), 0666), 0) << path_;
    // With a writer of our own, reading never reaches the end.
    pipe_.reset(::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    EXPECT_TRUE(pipe_) << path_;
  }

  const std::string& path() const { return path_; }

  // Waits for the next line.
  std::string nextLine() {
    if (const auto line = takeLine()) return *line;
    std::string line;
    auto source = loop_.watchReadable(pipe_.get(), platform::Urgency::kOrdinary, [&] {
      if (auto taken = takeLine()) {
        line = *std::move(taken);
        loop_.stop();
      }
    });
    EXPECT_TRUE(source);
    const auto deadline = loop_.startTimer(kTestDeadline, platform::RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << "no line in " << path_;
      loop_.stop();
    });
    loop_.run();
    return line;
  }

 private:
  std::optional<std::string> takeLine() {
    char bytes[4096];
    ssize_t count = 0;
    while ((count = ::read(pipe_.get(), bytes, sizeof bytes)) > 0) {
      text_.append(bytes, static_cast<std::size_t>(count));
    }
    const std::size_t end = text_.find('\n');
    if (end == text_.npos) return std::nullopt;
    std::string line = text_.substr(0, end);
    text_.erase(0, end + 1);
    return line;
  }

  platform::RunLoop& loop_;
  std::string path_;
  platform::UniqueFd pipe_;
  std::string text_;
};

// One job host after another below one root, in this process.
class RealJobHostTest : public testing::Test {
 protected:
  enum class Groups { kNone, kIfPossible };

  explicit RealJobHostTest(Groups groups = Groups::kIfPossible) : groups_(groups) {
    const auto limit = platform::raiseDescriptorLimit();
    EXPECT_TRUE(limit);
    originalDescriptorLimit_ = limit ? *limit : 1024;
    makeProcesses();
    startHost();
  }

  ~RealJobHostTest() override {
    if (host_) shutDown();
  }

  platform::AsioRunLoop& loop() { return *loop_; }

  void startHost() {
    JobHostOptions options;
    options.root = root_.path();
    options.bootId = *readBootId();
    auto host = JobHost::create(loop(), *processes_, log_, std::move(options));
    ASSERT_TRUE(host) << platform::describe(host.error());
    host_ = std::move(*host);
  }

  // Drops the host as a kill does: its jobs go on. (They stay this process's children.)
  void dropHost() {
    host_.reset();
    makeProcesses();
  }

  std::optional<JobGroups> makeGroups() const {
    auto groups = JobGroups::create(hostMark(root_.path(), *readBootId()));
    return groups ? std::optional(*std::move(groups)) : std::nullopt;
  }

  // Calls `start` with a function, and runs the loop until that is called.
  void await(const std::function<void(std::function<void()>)>& start) {
    bool done = false;
    start([&] {
      done = true;
      loop().stop();
    });
    const auto deadline = loop().startTimer(kTestDeadline, platform::RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << "nothing came";
      loop().stop();
    });
    if (!done) loop().run();
  }

  JobHost::Outcome submit(platform::Dictionary dictionary) {
    const auto definition = parseJobDefinition(platform::Value(std::move(dictionary)));
    EXPECT_TRUE(definition) << platform::describe(definition.error());
    JobHost::Outcome result;
    await([&](auto done) {
      host_->submit(*definition, [&, done](JobHost::Outcome outcome) {
        result = std::move(outcome);
        done();
      });
    });
    return result;
  }

  JobHost::Outcome remove(std::string_view label) {
    JobHost::Outcome result;
    await([&](auto done) {
      host_->remove(label, [&, done](JobHost::Outcome outcome) {
        result = std::move(outcome);
        done();
      });
    });
    return result;
  }

  void shutDown() {
    await([&](auto done) { host_->shutDown(done); });
    EXPECT_TRUE(host_->labels().empty());
  }

  platform::ProcessId pidOf(std::string_view label) {
    return static_cast<platform::ProcessId>(host_->copy(label)["PID"].integer().value_or(0));
  }

  // A job that runs a shell script.
  static platform::Dictionary scriptJob(const std::string& label, const std::string& script) {
    return {{"Label", label},
            {"ProgramArguments", platform::Array{"/bin/sh", "-c", script}},
            {"KeepAlive", true},
            {"ThrottleInterval", 0}};
  }

  static bool exists(platform::ProcessId process) { return ::kill(process, 0) == 0; }

  const Groups groups_;
  platform::TemporaryFolder root_;
  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "jobhost"};
  std::unique_ptr<platform::AsioRunLoop> loop_ = std::move(*platform::AsioRunLoop::create());
  std::uint64_t originalDescriptorLimit_ = 0;
  std::unique_ptr<LinuxProcesses> processes_;
  std::unique_ptr<JobHost> host_;

 private:
  void makeProcesses() {
    auto processes = LinuxProcesses::create(loop(), originalDescriptorLimit_,
                                            hostMark(root_.path(), *readBootId()),
                                            groups_ == Groups::kNone ? std::nullopt : makeGroups());
    ASSERT_TRUE(processes) << platform::describe(processes.error());
    processes_ = std::move(*processes);
  }
};

}  // namespace jobhost
