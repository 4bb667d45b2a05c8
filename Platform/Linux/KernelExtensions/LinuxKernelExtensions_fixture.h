#pragma once

// Extensions in a folder, with a kernel and a job host that exist only in the test.

#include <cerrno>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/KernelExtensions/ExtensionsMachine_fixture.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Jobs/FakeJobs.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"
#include "Platform/Testing/KernelExtensions/KeepingHandler.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Processes/FakeExitWatcher.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// A kernel with the modules that a test sets.
class FakeKernelModules final : public KernelModules {
 public:
  bool isLoaded(const std::string& module) override { return loaded.contains(module); }
  bool isBuiltIn(const std::string& module) override { return module == builtIn; }
  Result<std::vector<std::string>> load(const std::string& module) override {
    if (refusal) return std::unexpected(*refusal);
    if (loaded.insert(module).second) return std::vector{module};
    return std::vector<std::string>();
  }
  Result<void> unload(const std::string& module) override {
    if (module == builtIn) return std::unexpected(Error{ErrorCode::kDenied, EBUSY, "built in"});
    if (isInUse) return std::unexpected(Error{ErrorCode::kDenied, EBUSY, module});
    if (loaded.erase(module) == 1) return {};
    return std::unexpected(Error{ErrorCode::kNotFound, ENOENT, module});
  }

  std::set<std::string> loaded;
  std::string builtIn;  // one of those that are loaded
  std::optional<Error> refusal;
  bool isInUse = false;
};

// Extensions in a folder, on fakes only.
class FakeExtensionsMachine final : public ExtensionsMachine {
 public:
  static constexpr char kModule[] = "com.example.module";

  FakeExtensionsMachine() {
    installProgram(kGood);
    installProgram(kSilent);
    offer(kGood);
  }
  ~FakeExtensionsMachine() override {
    for (const std::string& label : jobs.labels()) {
      static_cast<void>(jobs.SMJobRemove(kSMDomainSystemLaunchd, label, nullptr, true));
    }
  }

  KernelExtensions& extensions() override { return loader; }
  KernelControls& controls() override { return fakeControls; }

  std::string bundle(const std::string& identifier) const {
    return folder.path("Library/Extensions/" + identifier + ".kext");
  }
  std::string program(const std::string& identifier) const {
    return bundle(identifier) + "/Contents/Linux/program";
  }
  void install(const std::string& identifier, const std::string& keys) {
    folder.write("Library/Extensions/" + identifier + ".kext/Contents/Info.plist",
                 "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" + identifier +
                     "</string>" + keys + "</dict></plist>");
  }
  void installProgram(const std::string& identifier) {
    install(identifier, "<key>CFBundleExecutable</key><string>program</string>");
    signatures.addValid(program(identifier), SecStaticCode::Kind::kProgram, identifier);
  }
  // A module, and a program that offers its control.
  void installModule() {
    installProgram(kModule);
    install(kModule,
            "<key>CFBundleExecutable</key><string>program</string>"
            "<key>OSKernelModule</key><string>example_module</string>");
    offer(kModule);
  }
  // Their controls listen while the extensions run.
  void offer(const std::string& identifier) {
    fakeControls.offer(
        identifier, [this] { return std::make_unique<KeepingHandler>(kept); },
        [this, identifier] { return listens && processOf(identifier).has_value(); });
  }
  std::optional<ProcessId> processOf(const std::string& identifier) const {
    return jobs.process(LinuxKernelExtensions::jobLabel(identifier));
  }
  Result<void> load(const std::string& identifier, const std::vector<std::string>& folders = {}) {
    return loader.KextManagerLoadKextWithIdentifier(identifier, folders);
  }
  Result<void> unload(const std::string& identifier) {
    return loader.KextManagerUnloadKextWithIdentifier(identifier);
  }

  TemporaryFolder folder;
  VirtualRunLoop loop;
  FakeLogSink sink;
  SystemLog log{sink, "test"};
  FakeExitWatcher watcher{loop};
  FakeJobs jobs{loop, watcher};
  FakeCodeSignatures signatures;
  FakeKernelControls fakeControls{loop};
  FakeKernelModules modules;
  KeepingHandler::Kept kept;
  bool listens = true;
  LinuxKernelExtensions loader{
      {loop, jobs, signatures, fakeControls, modules, log},
      LinuxKernelExtensions::folders(folder.path(), folder.path("resources"))};
};

class LinuxKernelExtensionsTest : public testing::Test {
 protected:
  static constexpr const char* kGood = ExtensionsMachine::kGood;
  static constexpr const char* kSilent = ExtensionsMachine::kSilent;
  static constexpr const char* kModule = FakeExtensionsMachine::kModule;

  void expectRefused(const Result<void>& result, ErrorCode code, const std::string& reason) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, code);
    EXPECT_THAT(describe(result.error()), testing::HasSubstr(reason));
    EXPECT_EQ(machine_.sink.count(reason), 1u);
  }

  FakeExtensionsMachine machine_;
};

}  // namespace platform
