#include "Shared/Categories/NSFileManagerExtensions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Linux/Files/LinuxFileManager.h"
#include "Platform/Testing/Files/FakeFileManager.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

using namespace NSFileManagerExtensions;
using platform::Dictionary;
using platform::FakeFileManager;
using testing::ElementsAre;
using testing::IsEmpty;

class FileManagerExtensionsTest : public testing::Test {
 protected:
  using Paths = std::vector<std::string>;

  Paths expanded(std::optional<std::string_view> path) {
    auto paths = expandPathForAllUsers(manager_, path);
    EXPECT_TRUE(paths) << paths.error().localizedDescription;
    return paths ? *paths : Paths{"failed"};
  }

  Paths matches(std::optional<std::string_view> path) {
    auto paths = matchesForWildCardedPath(manager_, path);
    EXPECT_TRUE(paths) << paths.error().localizedDescription;
    return paths ? *paths : Paths{"failed"};
  }

  FakeFileManager manager_;
};

TEST_F(FileManagerExtensionsTest, TheAttributesAreRootsAndAdminsAndKept) {
  EXPECT_EQ(rootAdminDirectoryAttributes(), (Dictionary{{"NSFileOwnerAccountID", 0},
                                                        {"NSFileGroupOwnerAccountID", 80},
                                                        {"NSFilePosixPermissions", 493}}));
  EXPECT_EQ(rootAdminFileAttributes(), (Dictionary{{"NSFileOwnerAccountID", 0},
                                                   {"NSFileGroupOwnerAccountID", 80},
                                                   {"NSFilePosixPermissions", 420}}));
  EXPECT_EQ(&rootAdminDirectoryAttributes(), &rootAdminDirectoryAttributes());
  EXPECT_EQ(&rootAdminFileAttributes(), &rootAdminFileAttributes());
}

TEST_F(FileManagerExtensionsTest, ADeepFolderIsMadeByTheSharedManager) {
  FakeFileManager shared;
  manager_.setDefaultManager(shared);
  EXPECT_TRUE(createDeepDirectoryAtPath(manager_, "/a/b", &rootAdminDirectoryAttributes()));
  EXPECT_EQ(manager_.find("/a"), nullptr);
  ASSERT_NE(shared.find("/a/b"), nullptr);
  EXPECT_EQ(shared.find("/a/b")->attributes, rootAdminDirectoryAttributes());
  EXPECT_EQ(shared.find("/a")->attributes, rootAdminDirectoryAttributes());
}

TEST_F(FileManagerExtensionsTest, AnExistingFolderIsASuccessAndAFailureHasItsError) {
  manager_.addFolder("/a");
  EXPECT_TRUE(createDeepDirectoryAtPath(manager_, "/a", nullptr));
  manager_.failAt("/a/b", 513);
  const auto made = createDeepDirectoryAtPath(manager_, "/a/b/c", nullptr);
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, 513);
}

TEST_F(FileManagerExtensionsTest, ACopyWithoutBothPathsFailsWithoutAnError) {
  manager_.addFile("/a", "content");
  for (const auto& [from, to] :
       std::vector<std::pair<std::optional<std::string>, std::optional<std::string>>>{
           {std::nullopt, "/b"}, {"", "/b"}, {" \n", "/b"}, {"/a", std::nullopt}, {"/a", "\t"}}) {
    const auto copied = copyAndOverwriteItemAtPath(manager_, from, to);
    ASSERT_FALSE(copied);
    EXPECT_EQ(copied.error(), NSError());
  }
  EXPECT_TRUE(copyAndOverwriteItemAtPath(manager_, "/a", "/b"));
  EXPECT_EQ(manager_.find("/b")->content, "content");
  const auto missing = copyAndOverwriteItemAtPath(manager_, "/missing", "/b");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, 260);
}

TEST_F(FileManagerExtensionsTest, AHomePathExpandsForEveryEntryHomesOrNot) {
  manager_.addFolder("/Users/alice");
  manager_.addFolder("/Users/bob");
  manager_.addFolder("/Users/Shared");
  manager_.addFile("/Users/.localized");
  EXPECT_THAT(expanded("~/Library/Foo"),
              ElementsAre("/Users/alice/Library/Foo", "/Users/bob/Library/Foo",
                          "/Users/Shared/Library/Foo", "/Users/.localized/Library/Foo"));
  EXPECT_THAT(expanded("~/"),
              ElementsAre("/Users/alice/", "/Users/bob/", "/Users/Shared/", "/Users/.localized/"));
}

TEST_F(FileManagerExtensionsTest, AnyOtherPathStandsForItself) {
  for (const char* path : {"/missing", "~", "~bob/x", "/a/~/b", "relative", " ~/x"}) {
    EXPECT_THAT(expanded(path), ElementsAre(path));
  }
}

TEST_F(FileManagerExtensionsTest, NilAndWhiteSpaceExpandToNothingAndMatchNothing) {
  for (const std::optional<std::string_view> path :
       {std::optional<std::string_view>(), std::optional<std::string_view>(""),
        std::optional<std::string_view>(" \t\n")}) {
    EXPECT_THAT(expanded(path), IsEmpty());
    EXPECT_THAT(matches(path), IsEmpty());
  }
}

TEST_F(FileManagerExtensionsTest, WithoutTheFolderOfTheHomesBothFail) {
  for (const auto& paths :
       {expandPathForAllUsers(manager_, "~/x"), matchesForWildCardedPath(manager_, "~/x")}) {
    ASSERT_FALSE(paths);
    EXPECT_EQ(paths.error().code, 260);
  }
}

TEST_F(FileManagerExtensionsTest, ThePlatformDefinesTheFolderOfTheHomes) {
  FakeFileManager elsewhere("/home");
  elsewhere.addFile("/home/kim/x");
  EXPECT_THAT(*matchesForWildCardedPath(elsewhere, "~/x"), ElementsAre("/home/kim/x"));
}

TEST_F(FileManagerExtensionsTest, AMissingFolderIsSkippedWhateverItsErrorCode) {
  EXPECT_THAT(matches("/missing/*"), IsEmpty());
  EXPECT_THAT(matches("/missing/x"), IsEmpty());
  manager_.addFile("/a/x");
  manager_.failAt("/a", 4);
  EXPECT_THAT(matches("/a/*"), IsEmpty());
}

TEST_F(FileManagerExtensionsTest, AnyOtherErrorDiscardsTheMatchesSoFar) {
  manager_.addFile("/Users/alice/x");
  manager_.addFile("/Users/bob/x");
  manager_.addFile("/Users/carol/x");
  manager_.failAt("/Users/bob", 257);
  const auto paths = matchesForWildCardedPath(manager_, "~/*");
  ASSERT_FALSE(paths);
  EXPECT_EQ(paths.error().code, 257);
  EXPECT_EQ(paths.error().domain, "NSCocoaErrorDomain");
}

TEST_F(FileManagerExtensionsTest, OnlyExistingPathsMatch) {
  manager_.addFile("/Users/alice/Library/Foo");
  manager_.addFolder("/Users/bob/Library");
  manager_.addFile("/Users/.localized");
  manager_.addFile("/Users/carol/Library/Foo");
  EXPECT_THAT(matches("~/Library/Foo"),
              ElementsAre("/Users/alice/Library/Foo", "/Users/carol/Library/Foo"));
}

TEST_F(FileManagerExtensionsTest, WithoutAWildcardThePathComesBackAsItStands) {
  manager_.addFile("/a/File");
  EXPECT_THAT(matches("/a/File"), ElementsAre("/a/File"));
  EXPECT_THAT(matches("/a/File/"), ElementsAre("/a/File/"));
  EXPECT_THAT(matches("/a/file"), IsEmpty());
  EXPECT_THAT(matches("/a/Fil"), IsEmpty());
  EXPECT_THAT(matches("/a"), ElementsAre("/a"));
  EXPECT_THAT(matches("/"), IsEmpty());
  EXPECT_THAT(matches("a"), IsEmpty());
}

TEST_F(FileManagerExtensionsTest, ASuffixMatchesInAnyLetterCase) {
  for (const char* name : {"one.kext", "TWO.KEXT", "three.kexts", ".kext", "kext"}) {
    manager_.addFolder(std::string("/Library/Extensions/") + name);
  }
  EXPECT_THAT(matches("/Library/Extensions/*.kext"),
              ElementsAre("/Library/Extensions/one.kext", "/Library/Extensions/TWO.KEXT",
                          "/Library/Extensions/.kext"));
}

TEST_F(FileManagerExtensionsTest, APrefixMatchesInAnyLetterCase) {
  for (const char* name : {"com.vantor.a", "COM.Vantor", "org.vantor"}) {
    manager_.addFile(std::string("/a/") + name);
  }
  EXPECT_THAT(matches("/a/com.*"), ElementsAre("/a/com.vantor.a", "/a/COM.Vantor"));
}

// Deliberate.
TEST_F(FileManagerExtensionsTest, APrefixAndASuffixMayOverlap) {
  for (const char* name : {"aba", "ab", "ba", "abba", "ABxBA", "abab"}) {
    manager_.addFile(std::string("/a/") + name);
  }
  EXPECT_THAT(matches("/a/ab*ba"), ElementsAre("/a/aba", "/a/abba", "/a/ABxBA"));
}

TEST_F(FileManagerExtensionsTest, ABareWildcardMatchesEveryEntry) {
  for (const char* name : {"b", ".hidden", "\xff", "a"})
    manager_.addFile(std::string("/a/") + name);
  manager_.addFolder("/a/folder");
  EXPECT_THAT(matches("/a/*"), ElementsAre("/a/b", "/a/.hidden", "/a/\xff", "/a/a", "/a/folder"));
  EXPECT_THAT(matches("/*"), ElementsAre("/a"));
}

TEST_F(FileManagerExtensionsTest, FurtherWildcardsAreLiteral) {
  for (const char* name : {"a*c", "abc", "a*", "x*c"}) manager_.addFile(std::string("/a/") + name);
  EXPECT_THAT(matches("/a/a**c"), ElementsAre("/a/a*c"));
  EXPECT_THAT(matches("/a/**"), ElementsAre("/a/a*"));
  EXPECT_THAT(matches("/*/abc"), IsEmpty());
}

TEST_F(FileManagerExtensionsTest, AWildcardMatchesWholeCharacters) {
  manager_.addFile("/a/e\u0301tude");
  manager_.addFile("/a/STRASSE");
  EXPECT_THAT(matches("/a/e*"), IsEmpty());
  EXPECT_THAT(matches("/a/\u00c9*"), ElementsAre("/a/e\u0301tude"));
  EXPECT_THAT(matches("/a/stra\u00df*"), ElementsAre("/a/STRASSE"));
}

TEST_F(FileManagerExtensionsTest, TheNumberOfPathsIsLimited) {
  for (std::size_t i = 1; i < kMaximumPaths; ++i) manager_.addFile("/Users/" + std::to_string(i));
  EXPECT_EQ(expanded("~/x").size(), kMaximumPaths - 1);
  EXPECT_EQ(matches("/Users/*").size(), kMaximumPaths - 1);
  manager_.addFile("/Users/one");
  EXPECT_EQ(expanded("~/x").size(), kMaximumPaths);
  EXPECT_EQ(matches("/Users/*").size(), kMaximumPaths);
  manager_.addFile("/Users/another");
  for (const auto& paths :
       {expandPathForAllUsers(manager_, "~/x"), matchesForWildCardedPath(manager_, "/Users/*")}) {
    ASSERT_FALSE(paths);
    EXPECT_EQ(paths.error().localizedDescription,
              "/Users: gives more than the 262144 paths that are looked at");
  }
}

TEST_F(FileManagerExtensionsTest, ASubstringExceptionHasItsText) {
  const NSError error = substringError({0, 3}, {4, -1}, "abc", std::nullopt,
                                       {"NSRangeException", "out of bounds", {}});
  EXPECT_EQ(error.domain, "com.vantor.extensions");
  EXPECT_EQ(error.code, 1);
  EXPECT_EQ(error.localizedDescription,
            "NSFileManager+Extensions: Error to substringWithRange. prefixRange location: 0, "
            "prefixRange length: 3 suffixRange location: 4, suffixRange length: -1 prefix: abc, "
            "suffix: (null) exception: out of bounds");
}

TEST(FileManagerExtensionsOnLinuxTest, RealFoldersAreMatched) {
  const platform::TemporaryFolder folder;
  for (int i = 0; i < 1000; ++i)
    folder.write(
        "home/user" + std::to_string(i % 10) + "/" + std::to_string(i) + (i % 2 ? ".KEXT" : ".txt"),
        "");
  platform::LinuxFileManager manager(folder.path("home"));
  EXPECT_EQ(matchesForWildCardedPath(manager, "~/*.kext")->size(), 500u);
  EXPECT_EQ(matchesForWildCardedPath(manager, "~/7.KEXT")->size(), 1u);
  EXPECT_EQ(matchesForWildCardedPath(manager, folder.path("missing/*"))->size(), 0u);
  // A name that is too long for any system.
  const auto paths = matchesForWildCardedPath(manager, folder.path(std::string(300, 'x') + "/*"));
  ASSERT_FALSE(paths);
  EXPECT_EQ(paths.error().code, 256);
}

TEST(FileManagerExtensionsOnLinuxTest, AFolderOfAHundredThousandEntriesIsMatched) {
  constexpr std::size_t kEntries = 100'000;
  const platform::TemporaryFolder folder;
  for (std::size_t i = 0; i < kEntries; ++i) {
    const std::string path = folder.path(std::to_string(i) + (i % 4 == 0 ? ".KEXT" : ".txt"));
    ASSERT_EQ(::mknod(path.c_str(), S_IFREG | 0600, 0), 0);
  }
  platform::LinuxFileManager manager("/home");
  EXPECT_EQ(matchesForWildCardedPath(manager, folder.path("*"))->size(), kEntries);
  EXPECT_EQ(matchesForWildCardedPath(manager, folder.path("*.kext"))->size(), kEntries / 4);
  EXPECT_EQ(matchesForWildCardedPath(manager, folder.path("99*.txt"))->size(), 834u);
  EXPECT_EQ(matchesForWildCardedPath(manager, folder.path("99996.KEXT"))->size(), 1u);
}

}  // namespace
