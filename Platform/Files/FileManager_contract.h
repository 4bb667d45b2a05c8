#pragma once

// The contract of every file manager. A test program derives a FileManagerHarness, which makes and
// examines files without the manager, and instantiates:
//   INSTANTIATE_TEST_SUITE_P(Fake, FileManagerContract, testing::Values(&makeFakeHarness));

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Files/FileManager.h"

namespace platform {

class FileManagerHarness {
 public:
  virtual ~FileManagerHarness() = default;

  virtual FileManager& manager() = 0;
  // An empty folder to work in.
  virtual std::string folder() = 0;

  // Writes a file with these permissions, and with a change time in 2020.
  virtual void writeFile(const std::string& path, std::string_view content,
                         std::int64_t permissions) = 0;
  virtual std::optional<std::string> readFile(const std::string& path) = 0;
  virtual bool isFolder(const std::string& path) = 0;
  virtual std::int64_t permissions(const std::string& path) = 0;
  // Whether both have the same change time.
  virtual bool haveSameDate(const std::string& one, const std::string& other) = 0;
};

class FileManagerContract
    : public testing::TestWithParam<std::unique_ptr<FileManagerHarness> (*)()> {
 protected:
  using Names = std::vector<std::string>;

  std::string path(std::string_view below) const { return folder_ + "/" + std::string(below); }

  Names names(const std::string& folder) {
    Names result;
    const auto listed = manager_.eachNameInDirectory(folder, [&](std::string_view name) {
      result.emplace_back(name);
      return true;
    });
    EXPECT_TRUE(listed) << listed.error().localizedDescription;
    return result;
  }

  // The code of a failure whose text names `at`, 0 for a success.
  std::int64_t code(const Result<void, NSError>& result, const std::string& at) {
    if (result) return 0;
    EXPECT_EQ(result.error().domain, NSCocoaErrorDomain);
    EXPECT_THAT(result.error().localizedDescription, testing::StartsWith(at));
    return result.error().code;
  }

  std::unique_ptr<FileManagerHarness> harness_ = GetParam()();
  FileManager& manager_ = harness_->manager();
  std::string folder_ = harness_->folder();
};

TEST_P(FileManagerContract, TheSharedManagerWorksOnTheSameFiles) {
  EXPECT_TRUE(manager_.defaultManager().createDirectory(path("a"), nullptr));
  EXPECT_TRUE(harness_->isFolder(path("a")));
}

TEST_P(FileManagerContract, AFolderIsMadeWithItsMissingParents) {
  const Dictionary attributes{{NSFilePosixPermissions, 0710}};
  EXPECT_TRUE(manager_.createDirectory(path("a/b/c"), &attributes));
  for (const char* made : {"a", "a/b", "a/b/c"}) {
    EXPECT_TRUE(harness_->isFolder(path(made))) << made;
    EXPECT_EQ(harness_->permissions(path(made)), 0710) << made;
  }
}

TEST_P(FileManagerContract, AnExistingFolderStaysUnchanged) {
  const Dictionary first{{NSFilePosixPermissions, 0700}};
  EXPECT_TRUE(manager_.createDirectory(path("a/b"), &first));
  const Dictionary second{{NSFilePosixPermissions, 0755}};
  EXPECT_TRUE(manager_.createDirectory(path("a/b"), &second));
  EXPECT_TRUE(manager_.createDirectory(path("a/b/"), &second));
  EXPECT_EQ(harness_->permissions(path("a/b")), 0700);
  EXPECT_TRUE(manager_.createDirectory("/", nullptr));
}

TEST_P(FileManagerContract, AFileInThePlaceOfAFolderIsAnError) {
  harness_->writeFile(path("file"), "x", 0644);
  EXPECT_EQ(code(manager_.createDirectory(path("file"), nullptr), path("file")), 512);
  EXPECT_EQ(code(manager_.createDirectory(path("file/a"), nullptr), path("file")), 4);
  EXPECT_EQ(harness_->readFile(path("file")), "x");
  EXPECT_EQ(code(manager_.createDirectory("", nullptr), ""), 4);
}

TEST_P(FileManagerContract, ACopyHasTheContentAndTheAttributes) {
  harness_->writeFile(path("source"), "content", 0640);
  EXPECT_EQ(code(manager_.overwriteWithCopy(path("source"), path("copy")), ""), 0);
  EXPECT_EQ(harness_->readFile(path("copy")), "content");
  EXPECT_EQ(harness_->permissions(path("copy")), 0640);
  EXPECT_TRUE(harness_->haveSameDate(path("source"), path("copy")));
}

TEST_P(FileManagerContract, ACopyReplacesTheOldFileAndLeavesNoOther) {
  harness_->writeFile(path("source"), "new", 0600);
  harness_->writeFile(path("copy"), "old and longer", 0644);
  EXPECT_TRUE(manager_.overwriteWithCopy(path("source"), path("copy")));
  EXPECT_EQ(harness_->readFile(path("copy")), "new");
  EXPECT_EQ(harness_->permissions(path("copy")), 0600);
  EXPECT_THAT(names(folder_), testing::UnorderedElementsAre("source", "copy"));
}

TEST_P(FileManagerContract, AFileCanBeCopiedOntoItself) {
  harness_->writeFile(path("source"), "content", 0600);
  EXPECT_TRUE(manager_.overwriteWithCopy(path("source"), path("source")));
  EXPECT_EQ(harness_->readFile(path("source")), "content");
}

TEST_P(FileManagerContract, EmptyAndLargeContentIsCopied) {
  for (const std::size_t size : {0, 1, 128 * 1024 - 1, 128 * 1024, 128 * 1024 + 1, 3'000'000}) {
    const std::string content(size, 'x');
    harness_->writeFile(path("source"), content, 0600);
    EXPECT_TRUE(manager_.overwriteWithCopy(path("source"), path("copy")));
    EXPECT_EQ(harness_->readFile(path("copy")), content) << size;
  }
}

TEST_P(FileManagerContract, ACopyThatFailsChangesNothing) {
  harness_->writeFile(path("source"), "new", 0600);
  harness_->writeFile(path("old"), "old", 0600);
  ASSERT_TRUE(manager_.createDirectory(path("folder"), nullptr));
  const auto copy = [&](std::string_view source, std::string_view destination) {
    return manager_.overwriteWithCopy(path(source), path(destination));
  };
  EXPECT_EQ(code(copy("missing", "old"), path("missing")), 260);
  EXPECT_EQ(code(copy("folder", "old"), path("folder")), 256);
  EXPECT_EQ(code(copy("source", "missing/copy"), path("missing/copy")), 4);
  EXPECT_EQ(code(copy("source", "old/copy"), path("old/copy")), 4);
  EXPECT_EQ(code(copy("source", "folder"), path("folder")), 512);
  EXPECT_EQ(harness_->readFile(path("old")), "old");
  EXPECT_THAT(names(folder_), testing::UnorderedElementsAre("source", "old", "folder"));
  EXPECT_THAT(names(path("folder")), testing::IsEmpty());
}

TEST_P(FileManagerContract, EveryEntryIsListedOnceIncludingHiddenOnes) {
  for (const char* name : {"b", ".hidden", "a b", "\u00e9", "\xff"}) {
    harness_->writeFile(path(name), "", 0600);
  }
  ASSERT_TRUE(manager_.createDirectory(path("folder/inner"), nullptr));
  EXPECT_THAT(names(folder_),
              testing::UnorderedElementsAre("b", ".hidden", "a b", "\u00e9", "\xff", "folder"));
  EXPECT_THAT(names(path("folder/")), testing::ElementsAre("inner"));
}

TEST_P(FileManagerContract, ListingEndsWhenTheCallbackReturnsFalse) {
  for (int i = 0; i < 10; ++i) harness_->writeFile(path(std::to_string(i)), "", 0600);
  int named = 0;
  EXPECT_TRUE(manager_.eachNameInDirectory(folder_, [&](std::string_view) { return ++named < 3; }));
  EXPECT_EQ(named, 3);
}

TEST_P(FileManagerContract, OnlyAFolderCanBeListed) {
  harness_->writeFile(path("file"), "", 0600);
  const auto list = [&](const std::string& folder) {
    return code(manager_.eachNameInDirectory(folder, [](std::string_view) { return true; }),
                folder);
  };
  EXPECT_EQ(list(path("missing")), 260);
  EXPECT_EQ(list(path("file")), 260);
  EXPECT_EQ(list(""), 260);
}

TEST_P(FileManagerContract, APathWithAZeroByteIsRefused) {
  harness_->writeFile(path("a"), "old", 0600);
  harness_->writeFile(path("b"), "new", 0600);
  const std::string zero = path(std::string_view("a\0x", 3));
  EXPECT_EQ(code(manager_.createDirectory(zero, nullptr), path("a")), 512);
  EXPECT_EQ(code(manager_.overwriteWithCopy(path("b"), zero), path("a")), 512);
  EXPECT_EQ(code(manager_.overwriteWithCopy(zero, path("b")), path("a")), 256);
  EXPECT_EQ(
      code(manager_.eachNameInDirectory(zero, [](std::string_view) { return true; }), path("a")),
      256);
  EXPECT_EQ(harness_->readFile(path("a")), "old");
}

}  // namespace platform
