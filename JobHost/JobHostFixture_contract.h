#pragma once

// A job host on virtual time, with processes that exist only in the test.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "JobHost/JobHost.h"
#include "JobHost/Processes/FakeProcesses_contract.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace jobhost {

inline constexpr platform::ExitStatus kSegmentationFault{platform::ExitStatus::Kind::kSignalled,
                                                         SIGSEGV};

class JobHostTest : public testing::Test {
 protected:
  JobHostTest() { startHost(); }

  void startHost(std::size_t maximumJobs = kMaximumJobs) {
    JobHostOptions options;
    options.root = root_.path();
    options.bootId = bootId_;
    options.maximumJobs = maximumJobs;
    options.isBusOutdated = isBusOutdated_;
    options.onBusRestarted = [this] { ++busRestarts_; };
    options.isStopRequested = isStopRequested_;
    auto host = JobHost::create(loop_, processes_, log_, std::move(options));
    ASSERT_TRUE(host) << platform::describe(host.error());
    host_ = std::move(*host);
  }

  // Kills the host and starts the next one.
  void restartHost() {
    killHost();
    startHost();
  }
  void killHost() {
    host_.reset();
    processes_.dropWatches();
  }

  // Empty until the outcome is known.
  using Answer = std::shared_ptr<std::optional<JobHost::Outcome>>;

  Answer submitLater(platform::Dictionary job) {
    auto definition = parseJobDefinition(platform::Value(std::move(job)));
    EXPECT_TRUE(definition) << platform::describe(definition.error());
    Answer answer = std::make_shared<std::optional<JobHost::Outcome>>();
    host_->submit(*std::move(definition), [answer](auto outcome) { *answer = outcome; });
    EXPECT_FALSE(*answer);
    loop_.runReady();
    return answer;
  }
  Answer removeLater(std::string_view label) {
    Answer answer = std::make_shared<std::optional<JobHost::Outcome>>();
    host_->remove(label, [answer](auto outcome) { *answer = outcome; });
    EXPECT_FALSE(*answer);
    loop_.runReady();
    return answer;
  }
  JobHost::Outcome submit(platform::Dictionary job) { return submitLater(std::move(job))->value(); }

  static platform::Dictionary job(const std::string& label, platform::Dictionary more = {}) {
    platform::Dictionary dictionary{
        {"Label", label}, {"Program", "/bin/true"}, {"KeepAlive", true}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    return dictionary;
  }

  // Defines a job by a file of the daemons' folder, with more of its dictionary as XML.
  static std::string daemonFile(const std::string& label, const std::string& more = {}) {
    return "<plist version=\"1.0\"><dict><key>Label</key><string>" + label +
           "</string><key>Program</key><string>/bin/true</string>" + more + "</dict></plist>";
  }
  inline static const std::string kKeepAlive = "<key>KeepAlive</key><true/>";

  // A copy of the job without its history.
  platform::Value copied(std::string_view label) {
    const platform::Value copy = host_->copy(label);
    if (!copy.dictionary()) return copy;
    platform::Dictionary dictionary = *copy.dictionary();
    EXPECT_TRUE(dictionary.remove(platform::kJobHistoryKey));
    return dictionary;
  }
  platform::JobHistory history(std::string_view label) {
    return jobHistoryIn(host_->copy(label)).value();
  }
  platform::Value pid(std::string_view label) { return host_->copy(label)["PID"]; }
  void endLast(ProcessEnd status = {}) {
    processes_.end(processes_.started.back().process, status);
    loop_.runReady();
  }
  std::size_t starts() const { return processes_.started.size(); }

  platform::TemporaryFolder root_;
  std::string bootId_ = "11111111-2222-3333-4444-555555555555/1.9";
  platform::VirtualRunLoop loop_;
  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "jobhost"};
  FakeProcesses processes_{loop_};
  bool isBusOutdated_ = false;             // for the next host
  std::function<bool()> isStopRequested_;  // the same
  int busRestarts_ = 0;                    // as the hosts have reported
  std::unique_ptr<JobHost> host_;
};

}  // namespace jobhost
