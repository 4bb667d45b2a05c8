#include "Platform/Testing/Files/FakeFileManager.h"

#include <gtest/gtest.h>

#include "Platform/Files/FileManager_contract.h"

namespace platform {
namespace {

class FakeFiles final : public FileManagerHarness {
 public:
  FakeFiles() { manager_.addFolder("/work"); }

  FileManager& manager() override { return manager_; }
  std::string folder() override { return "/work"; }
  void writeFile(const std::string& path, std::string_view content,
                 std::int64_t permissions) override {
    manager_.addFile(
        path, std::string(content),
        {{NSFilePosixPermissions, permissions}, {"NSFileModificationDate", Date{6e8}}});
  }
  std::optional<std::string> readFile(const std::string& path) override {
    const auto* file = manager_.find(path);
    return file && !file->isFolder ? std::optional(file->content) : std::nullopt;
  }
  bool isFolder(const std::string& path) override {
    const auto* file = manager_.find(path);
    return file && file->isFolder;
  }
  std::int64_t permissions(const std::string& path) override {
    return manager_.find(path)->attributes[NSFilePosixPermissions].integer().value_or(-1);
  }
  bool haveSameDate(const std::string& one, const std::string& other) override {
    return manager_.find(one)->attributes["NSFileModificationDate"] ==
           manager_.find(other)->attributes["NSFileModificationDate"];
  }

 private:
  FakeFileManager manager_;
};

std::unique_ptr<FileManagerHarness> makeFakeFiles() { return std::make_unique<FakeFiles>(); }

INSTANTIATE_TEST_SUITE_P(Fake, FileManagerContract, testing::Values(&makeFakeFiles));

TEST(FakeFileManagerTest, APathCanBeMadeToFail) {
  FakeFileManager manager;
  manager.addFile("/a/b");
  manager.failAt("/a", NSFileReadNoPermissionError);
  const auto listed = manager.eachNameInDirectory("/a", [](std::string_view) { return true; });
  ASSERT_FALSE(listed);
  EXPECT_EQ(listed.error().code, 257);
}

TEST(FakeFileManagerTest, EntriesAreListedInTheOrderOfTheirCreation) {
  FakeFileManager manager;
  for (const char* name : {"/z", "/a", "/m"}) manager.addFile(name);
  manager.addFile("/a", "again");
  EXPECT_EQ(manager.find("/")->names, (std::vector<std::string>{"z", "a", "m"}));
}

}  // namespace
}  // namespace platform
