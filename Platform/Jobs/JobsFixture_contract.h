#pragma once

// The fixture of the contract of Jobs.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Platform/Jobs/Jobs.h"

namespace platform {

// A machine with a job host without jobs, and with programs for jobs.
class JobsMachine {
 public:
  virtual ~JobsMachine() = default;

  virtual Jobs& jobs() = 0;

  // A program that runs until it gets SIGTERM, and one that ignores SIGTERM.
  virtual std::string program() = 0;
  virtual std::string stubbornProgram() = 0;
  // A path for "StandardOutPath" of the job `label`, and a wait until its process has written
  // there. The stubborn program writes after it has started to ignore SIGTERM.
  virtual std::string outputPath() = 0;
  virtual void awaitOutput(const std::string& label) = 0;
  // The path of a file that can't be executed.
  virtual std::string unstartableProgram() = 0;

  // Ends the job's process by SIGKILL, and returns when it has ended.
  virtual void kill(const std::string& label, ProcessId process) = 0;
  // Whether there is such a process.
  virtual bool isRunning(ProcessId process) = 0;
  // Returns when the job has a process other than this, after at most a minute.
  virtual void awaitProcessAfter(const std::string& label, ProcessId process) = 0;

  // Runs the caller's loop for a tenth of a second of its time.
  virtual void runBriefly() = 0;
  // Runs the caller's loop until `done` holds, for at most a minute.
  virtual void runUntil(const std::function<bool()>& done) = 0;

  // The host ends, its jobs continue.
  virtual void stopHost() = 0;
  virtual void startHost() = 0;
  // Starts the host shortly after this call has returned.
  virtual void startHostSoon() = 0;
};

class JobsContract : public testing::TestWithParam<std::unique_ptr<JobsMachine> (*)()> {
 protected:
  static constexpr char kLabel[] = "com.example.agent";
  static constexpr char kDomain[] = "kSMDomainSystemLaunchd";

  Value job(const std::string& program, Dictionary more = {}) {
    Dictionary dictionary{{"Label", kLabel}, {"Program", program}, {"KeepAlive", true}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    return dictionary;
  }

  void submit(const Value& job) {
    const auto submitted = jobs_.SMJobSubmit(kDomain, job, nullptr);
    EXPECT_TRUE(submitted) << submitted.error().localizedDescription;
  }

  // A job that ignores SIGTERM. Returns its process once that does.
  ProcessId submitStubborn(Dictionary more = {}) {
    more.set("StandardOutPath", machine_->outputPath());
    submit(job(machine_->stubbornProgram(), std::move(more)));
    machine_->awaitOutput(kLabel);
    return process();
  }

  std::expected<void, NSError> remove(bool wait = true) {
    return jobs_.SMJobRemove(kDomain, kLabel, nullptr, wait);
  }

  using Outcome = std::shared_ptr<std::optional<std::expected<void, NSError>>>;
  using Copy = std::shared_ptr<std::optional<Value>>;

  // The calls that do not block; empty until they are answered.
  Outcome removeLater(const char* domain = kDomain) {
    return later<std::expected<void, NSError>>(
        [&](auto answer) { jobs_.removeJob(domain, kLabel, nullptr, std::move(answer)); });
  }
  Outcome submitLater(const Value& job, const char* domain = kDomain) {
    return later<std::expected<void, NSError>>(
        [&](auto answer) { jobs_.submitJob(domain, job, nullptr, std::move(answer)); });
  }
  Copy copyLater(const char* domain = kDomain) {
    return later<Value>([&](auto answer) { jobs_.copyJob(domain, kLabel, std::move(answer)); });
  }

  std::expected<void, NSError> await(const Outcome& outcome) {
    machine_->runUntil([&] { return outcome->has_value(); });
    return outcome->value_or(std::unexpected(NSError{"no outcome", 0, ""}));
  }
  Value await(const Copy& copy) {
    machine_->runUntil([&] { return copy->has_value(); });
    return copy->value_or("no copy");
  }

  Value copy() { return jobs_.SMJobCopyDictionary(kDomain, kLabel); }

  ProcessId process() {
    const auto process = copy()["PID"].integer();
    EXPECT_GT(process.value_or(0), 0);
    return static_cast<ProcessId>(process.value_or(0));
  }

  static void expectError(const std::expected<void, NSError>& result, LaunchdError code) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().domain, kCFErrorDomainLaunchd);
    EXPECT_EQ(result.error().code, static_cast<int>(code)) << result.error().localizedDescription;
    EXPECT_NE(result.error().localizedDescription, "");
  }

  template <class Answer, class Call>
  static std::shared_ptr<std::optional<Answer>> later(Call&& call) {
    auto later = std::make_shared<std::optional<Answer>>();
    call([later](Answer answer) {
      EXPECT_FALSE(*later);
      *later = std::move(answer);
    });
    EXPECT_FALSE(*later);  // never from inside the call
    return later;
  }

  std::unique_ptr<JobsMachine> machine_ = GetParam()();
  Jobs& jobs_ = machine_->jobs();
};

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(JobsContract);

}  // namespace platform
