#pragma once

// A machine that exists only in a test, with the programs of a product: virtual time, fake jobs,
// files, signatures and kernel extensions.

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Platform/Files/Bundle.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Files/FakeFileReader.h"
#include "Platform/Testing/Jobs/FakeAuthorization.h"
#include "Platform/Testing/Jobs/FakeJobs.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"
#include "Platform/Testing/KernelExtensions/FakeKernelExtensions.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Processes/FakeExitWatcher.h"
#include "Platform/Testing/Processes/FakeTasks.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/FakeServiceHealth_fixture.h"

class SupervisedMachine : public testing::Test {
 protected:
  using Value = platform::Value;
  using Array = platform::Array;
  using Dictionary = platform::Dictionary;

  static constexpr char kPrimary[] = "com.example.configd";
  static constexpr char kAgent[] = "com.example.agent";
  static constexpr char kHelper[] = "com.example.helper";
  static constexpr char kProduct[] = "kKLXInstallTypeServerManagedID";
  static constexpr char kProductWithHealth[] = "kKLXInstallTypeHostedManagedID";

  // A core service's entry, for a product without a health record and one with it; its job has no
  // throttle.
  static Dictionary entry(const std::string& program) {
    return {{"Products", Array{kProduct, kProductWithHealth}},
            {"JobSpec", Dictionary{{"Program", program}, {"ThrottleInterval", 0}}}};
  }
  static Dictionary entry(const std::string& program,
                          std::initializer_list<Dictionary::Entry> more) {
    Dictionary extended = entry(program);
    for (const auto& [key, value] : more) extended.set(key, value);
    return extended;
  }

  static Dictionary catalogue(Dictionary services) {
    return {{"Services", std::move(services)},
            {"Primary", kPrimary},
            {"ProgramPath", "/opt/app"},
            {"ProductInfo", "product.plist"},
            {"ProductInfoKey", "GUID"}};
  }
  static Dictionary catalogue() {
    return catalogue(
        {{kPrimary, entry("configd")}, {kAgent, entry("agent")}, {kHelper, entry("helper")}});
  }

  static std::string pathOf(const std::string& program) { return "/opt/app/" + program; }
  void addProgram(const std::string& program) {
    files_.addFile(pathOf(program));
    signatures_.addValid(pathOf(program), platform::SecStaticCode::Kind::kProgram, program);
  }
  void addPrograms(const Dictionary& catalogue) {
    for (const auto& [label, service] : *catalogue["Services"].dictionary()) {
      if (const std::string* program = service["JobSpec"]["Program"].string()) addProgram(*program);
    }
  }
  void damageProgram(const std::string& program) {
    signatures_.addRefused(pathOf(program), platform::SecStaticCode::Kind::kProgram,
                           {platform::errSecCSSignatureFailed, "changed"});
  }

  int process(const char* label) { return static_cast<int>(jobs_.process(label).value_or(-1)); }
  bool isRunning(const char* label) { return jobs_.process(label).has_value(); }
  // Ends the job's process and lets the loop serve what follows.
  void kill(const char* label) {
    jobs_.endProcess(label, {platform::ExitStatus::Kind::kSignalled, 9});
    loop_.runReady();
  }

  // Serves the loop until the request has been answered, and returns the answer.
  template <class T, class Request>
  T answerTo(Request&& request) {
    std::optional<T> answer;
    bool isServing = false;
    request([&](T value) {
      answer = std::move(value);
      if (isServing) loop_.stop();
    });
    isServing = true;
    if (!answer) loop_.run();
    EXPECT_TRUE(answer) << "there is no answer, and nothing is left to wait for";
    return std::move(answer).value_or(T());
  }

  // The lines that were logged since the last call, as "LEVEL TEXT".
  std::vector<std::string> takeLog() {
    queues_.runPending();
    std::vector<std::string> lines;
    for (const auto& message : logSink_.take()) {
      const std::size_t prefix = message.text.find("] ");
      EXPECT_THAT(message.text.substr(0, prefix),
                  testing::MatchesRegex("\\[[A-Za-z0-9+]+\\.cpp:[0-9]+"));
      lines.push_back(std::to_string(message.level) + " " + message.text.substr(prefix + 2));
    }
    return lines;
  }
  std::size_t countInLog(const std::string& part) {
    queues_.runPending();
    return logSink_.count(part);
  }
  // The reports to the health record since the last call.
  std::vector<std::string> takeReports() { return std::exchange(reports_, {}); }

  platform::VirtualRunLoop loop_;
  platform::FakeLogSink logSink_;
  platform::SystemLog log_{logSink_, "test"};
  // It writes pending lines when it ends, so it must end before the log.
  platform::VirtualSerialQueues queues_{loop_};
  Logger2State logger2_{log_, queues_};
  Logger2Binding binding_{logger2_};
  platform::FakeExitWatcher exitWatcher_{loop_};
  platform::FakeJobs jobs_{loop_, exitWatcher_};
  platform::FakeAuthorization authorization_{jobs_};
  platform::FakeFileReader files_;
  platform::FakeCodeSignatures signatures_;
  platform::FakeSystemInformation system_;
  platform::NotificationCenter notificationCenter_;
  platform::FakeKernelControls controls_{loop_};
  platform::FakeKernelExtensions extensions_{loop_, controls_};
  platform::FakeTasks tasks_{notificationCenter_, true};
  KernelExtensionsPlatform extensionsPlatform_{extensions_, controls_, tasks_, "/root"};
  platform::Bundle bundle_{
      {"/Daemon.bundle", "/Daemon.bundle/Contents/Info.plist",
       "/Daemon.bundle/Contents/Linux/daemon", "/Daemon.bundle/Contents/Resources"},
      {}};
  std::vector<std::string> reports_;
};
