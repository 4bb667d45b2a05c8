#ifndef __SANITIZE_THREAD__  // libkmod is not built with the sanitizer.

#include "Platform/Linux/KernelExtensions/KmodModules.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;

// A folder of modules as depmod would make it.
class ModulesFolder {
 public:
  // Adds one module, known by its name, whose file has this content.
  void addFile(const std::string& name, const std::string& content) {
    folder_.write("kernel/" + name + ".ko", content);
    writeIndex("modules.dep.bin", name, "kernel/" + name + ".ko:");
  }
  // Adds one module that is built into the kernel.
  void addBuiltIn(const std::string& name) { writeIndex("modules.builtin.bin", name, ""); }
  std::string path(const std::string& name) const { return folder_.path(name); }
  KmodModules modules() const { return KmodModules(folder_.path()); }

 private:
  // An index of libkmod with one key: its head, then the root, whose prefix is the key.
  void writeIndex(const std::string& file, const std::string& key, const std::string& value) {
    constexpr std::uint32_t kMagic = 0xb007f457;
    constexpr std::uint32_t kVersion = 0x00020001;
    constexpr std::uint32_t kPrefix = 0x80000000;
    constexpr std::uint32_t kValues = 0x40000000;
    std::string index;
    const auto add = [&](std::uint32_t number) {
      for (const int shift : {24, 16, 8, 0}) index += static_cast<char>(number >> shift);
    };
    add(kMagic);
    add(kVersion);
    add(12 | kPrefix | kValues);
    index += key + '\0';
    add(1);  // the number of values, and the priority of the only one
    add(0);
    index += value + '\0';
    folder_.write(file, index);
  }

  TemporaryFolder folder_;
};

TEST(KmodModulesTest, AModuleThatTheKernelRejectsIsRefusedWithTheReason) {
  ModulesFolder folder;
  folder.addFile("vantor_test_no_module", "this is no module");
  KmodModules modules = folder.modules();
  EXPECT_FALSE(modules.isLoaded("vantor_test_no_module"));
  const auto refused = modules.load("vantor_test_no_module");
  ASSERT_FALSE(refused);
  EXPECT_THAT(refused.error().context, AllOf(HasSubstr("\"vantor_test_no_module\""),
                                             HasSubstr("the kernel does not load it")));
  // No permission to load modules, a bad format, or a kernel without module loading.
  EXPECT_THAT(refused.error().osError, testing::AnyOf(EPERM, ENOEXEC, ENOSYS));
  EXPECT_NE(describe(refused.error()).find(std::strerror(refused.error().osError)),
            std::string::npos)
      << describe(refused.error());
  EXPECT_FALSE(modules.isLoaded("vantor_test_no_module"));
  const auto unloaded = modules.unload("vantor_test_no_module");
  ASSERT_FALSE(unloaded);
  EXPECT_EQ(unloaded.error().code, ErrorCode::kNotFound);
  EXPECT_THAT(unloaded.error().context, HasSubstr("it is not loaded"));
}

TEST(KmodModulesTest, AModuleWhoseFileIsMissingIsNotFound) {
  ModulesFolder folder;
  folder.addFile("vantor_test_no_module", "");
  std::filesystem::remove(folder.path("kernel/vantor_test_no_module.ko"));
  const auto refused = folder.modules().load("vantor_test_no_module");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kNotFound);
}

TEST(KmodModulesTest, ABuiltInModuleIsLoadedAndStays) {
  ModulesFolder folder;
  folder.addBuiltIn("vantor_test_built_in");
  KmodModules modules = folder.modules();
  EXPECT_TRUE(modules.isLoaded("vantor_test_built_in"));
  EXPECT_TRUE(modules.isBuiltIn("vantor_test_built_in"));
  EXPECT_EQ(modules.load("vantor_test_built_in"), std::vector<std::string>());
  const auto refused = modules.unload("vantor_test_built_in");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kDenied);
  EXPECT_THAT(refused.error().context, HasSubstr("it is built into the kernel"));
}

TEST(KmodModulesTest, ALoadedModuleIsFoundWithoutItsFolder) {
  std::string running;
  std::ifstream("/proc/modules") >> running;
  if (running.empty()) GTEST_SKIP() << "this kernel has no modules loaded";
  const ModulesFolder empty;
  KmodModules modules = empty.modules();
  EXPECT_TRUE(modules.isLoaded(running));
  EXPECT_FALSE(modules.isBuiltIn(running));
  EXPECT_EQ(modules.load(running), std::vector<std::string>());
}

TEST(KmodModulesTest, AnUnknownModuleIsNotFound) {
  KmodModules modules;
  const std::string name = "no_such_module_as_this";
  EXPECT_FALSE(modules.isLoaded(name));
  EXPECT_FALSE(modules.isBuiltIn(name));
  const auto loaded = modules.load(name);
  ASSERT_FALSE(loaded);
  EXPECT_EQ(loaded.error().code, ErrorCode::kNotFound) << describe(loaded.error());
  EXPECT_THAT(loaded.error().context, HasSubstr(name));
  const auto unloaded = modules.unload(name);
  ASSERT_FALSE(unloaded);
  EXPECT_EQ(unloaded.error().code, ErrorCode::kNotFound);
}

}  // namespace
}  // namespace platform

#endif
