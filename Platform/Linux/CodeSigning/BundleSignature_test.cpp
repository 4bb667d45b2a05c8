// Bundles: changes of sealed resources are refused, each with its own reason.

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/CodeSigning/BundleSeal.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Machine/FileSizeLimit.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;

class BundleSignatureTest : public testing::Test {
 protected:
  std::string inside(const std::string& below) const { return bundle_ + "/Contents/" + below; }

  void expectRefused(OSStatus status, const std::string& reason) {
    // Check the bundle, and the program in it, whose check includes the bundle.
    for (const std::string& path : {bundle_, inside("Linux/program")}) {
      const CodeSigningFailure failure = bed_.refusal(path);
      EXPECT_EQ(failure.status, status) << failure.reason;
      EXPECT_THAT(failure.reason, HasSubstr(reason));
    }
  }

  void seal() {
    const auto done = signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options());
    ASSERT_TRUE(done) << describe(done.error());
  }

  CodeSigningBed bed_;
  const std::string bundle_ = bed_.makeBundle("Sample.bundle");
};

// The names and contents of the files in the seal's folder.
std::map<std::string, std::string> filesIn(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files[entry.path().filename()] = contentOfFile(entry.path());
  }
  return files;
}

TEST_F(BundleSignatureTest, AFailedSealingLeavesTheOldSeal) {
  const std::string folder = inside("_CodeSignature");
  const auto before = filesIn(folder);
  const std::size_t larger =
      std::max(before.at("CodeResources").size(), before.at("CodeSignature").size());
  bed_.folder().write("Sample.bundle/Contents/Resources/text", "Text");  // The list must change.
  // The limits leave room for no file, or only for the smaller one; signatures differ by a few
  // bytes.
  ASSERT_GT(larger, 128u);
  for (std::size_t room = 0; room < larger - 64; room += 64) {
    const FullDisk disk(room);
    EXPECT_FALSE(signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options()));
    EXPECT_EQ(filesIn(folder), before) << room;
  }
  bed_.folder().write("Sample.bundle/Contents/Resources/text", "text");
  EXPECT_TRUE(bed_.check(bundle_));
}

TEST_F(BundleSignatureTest, AFailedFirstSealingLeavesNothing) {
  const std::string unsealed = bed_.makeUnsealedBundle("Unsealed.bundle");
  {
    const FullDisk disk(0);
    EXPECT_FALSE(signBundle(unsealed, CodeSigningBed::signer(), CodeSigningBed::options()));
  }
  EXPECT_FALSE(std::filesystem::exists(unsealed + "/Contents/_CodeSignature"));
}

TEST_F(BundleSignatureTest, ASealedBundleAndItsProgramAreAccepted) {
  EXPECT_TRUE(bed_.check(bundle_));
  EXPECT_TRUE(bed_.check(inside("Linux/program")));
}

// Programs of bundles with any suffix are checked together with the bundle's seal.
TEST(BundleSuffixTest, TheSealOfEveryKindOfBundleCoversItsPrograms) {
  for (const char* name : {"Sample.bundle", "Sample.kext", "Sample.app"}) {
    CodeSigningBed bed;
    const std::string bundle = bed.makeBundle(name);
    const std::string program = bundle + "/Contents/Linux/program";
    EXPECT_TRUE(bed.check(bundle)) << name;
    EXPECT_TRUE(bed.check(program)) << name;
    bed.folder().write(std::string(name) + "/Contents/Resources/text", "changed");
    for (const std::string& path : {bundle, program}) {
      EXPECT_EQ(bed.refusal(path).status, errSecCSBadResource) << path;
    }
    std::filesystem::remove_all(bundle + "/Contents/_CodeSignature");
    for (const std::string& path : {bundle, program}) {
      EXPECT_EQ(bed.refusal(path).status, errSecCSUnsigned) << path;
    }
  }
}

TEST_F(BundleSignatureTest, AFlatBundleIsAccepted) {
  bed_.makeFile("flat/program");
  bed_.folder().write("flat/text", "text");
  const std::string flat = bed_.folder().path("flat");
  ASSERT_TRUE(signBundle(flat, CodeSigningBed::signer(), CodeSigningBed::options()));
  EXPECT_TRUE(bed_.check(flat));
  bed_.folder().write("flat/text", "changed");
  EXPECT_EQ(bed_.refusal(flat).status, errSecCSBadResource);
}

TEST_F(BundleSignatureTest, AChangedResourceIsRefused) {
  bed_.folder().write("Sample.bundle/Contents/Resources/text", "Text");
  expectRefused(errSecCSBadResource, "Resources/text: was changed after the bundle was sealed");
}

TEST_F(BundleSignatureTest, AnAddedResourceIsRefused) {
  bed_.folder().write("Sample.bundle/Contents/Resources/more", "");
  expectRefused(errSecCSBadResource, "Resources/more: was added after the bundle was sealed");
}

TEST_F(BundleSignatureTest, AFileBesideTheContentsIsAnAddedResource) {
  bed_.folder().write("Sample.bundle/more", "");
  expectRefused(errSecCSBadResource, "Sample.bundle/more: was added");
}

TEST_F(BundleSignatureTest, AFileBesideTheSealIsAnAddedResource) {
  bed_.folder().write("Sample.bundle/Contents/_CodeSignature/more", "");
  expectRefused(errSecCSBadResource, "_CodeSignature/more: was added");
}

TEST_F(BundleSignatureTest, AMissingResourceIsRefused) {
  std::filesystem::remove(inside("Resources/link"));
  std::filesystem::remove(inside("Resources/text"));
  expectRefused(errSecCSBadResource, "is missing from the bundle");
}

TEST_F(BundleSignatureTest, ASymbolicLinkOutOfTheBundleIsRefused) {
  for (const char* target :
       {"/etc/passwd", "../../../outside", "../../../Sample.bundle/Contents"}) {
    std::filesystem::remove(inside("Resources/link"));
    std::filesystem::create_symlink(target, inside("Resources/link"));
    expectRefused(errSecCSBadResource, "Resources/link: is a symbolic link that leads out");
    EXPECT_FALSE(signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options()));
  }
}

TEST_F(BundleSignatureTest, ALinkThatLeadsOutThroughAnotherLinkIsRefused) {
  // The text "here/../../../.." stays inside, but "here" is the folder itself.
  std::filesystem::create_symlink(".", inside("here"));
  std::filesystem::create_symlink("here/../..", inside("out"));
  expectRefused(errSecCSBadResource, "Contents/out: is a symbolic link that leads out");
}

TEST_F(BundleSignatureTest, ALinkThatLeadsElsewhereOrNowhereIsRefused) {
  std::filesystem::remove(inside("Resources/link"));
  std::filesystem::create_symlink("../Linux/program", inside("Resources/link"));
  expectRefused(errSecCSBadResource, "leads elsewhere than when the bundle was sealed");
  std::filesystem::remove(inside("Resources/link"));
  std::filesystem::create_symlink("gone", inside("Resources/link"));
  expectRefused(errSecCSBadResource, "is a symbolic link that leads nowhere");
}

TEST_F(BundleSignatureTest, AFileInPlaceOfALinkIsRefusedAndTheReverse) {
  std::filesystem::remove(inside("Resources/link"));
  bed_.folder().write("Sample.bundle/Contents/Resources/link", "text");
  expectRefused(errSecCSBadResource, "was a symbolic link when the bundle was sealed");
  seal();
  std::filesystem::remove(inside("Resources/link"));
  std::filesystem::create_symlink("text", inside("Resources/link"));
  expectRefused(errSecCSBadResource, "was a file when the bundle was sealed");
}

TEST_F(BundleSignatureTest, APipeInsideIsRefused) {
  ASSERT_EQ(::mkfifo(inside("Resources/pipe").c_str(), 0600), 0);
  expectRefused(errSecCSBadResource, "is neither a file, a folder nor a symbolic link");
}

TEST_F(BundleSignatureTest, AChangedListIsRefused) {
  bed_.folder().write("Sample.bundle/Contents/_CodeSignature/CodeResources", "<plist/>");
  expectRefused(errSecCSSignatureFailed, "CodeResources: is not what was signed");
}

TEST_F(BundleSignatureTest, AListPassesForNoProgram) {
  const std::string list =
      bed_.makeFile("bin/fake", contentOfFile(inside("_CodeSignature/CodeResources")));
  EXPECT_FALSE(signDetached(list, CodeSigningBed::signer(), CodeSigningBed::options()));
  bed_.folder().write("bin/fake.p7s", contentOfFile(inside("_CodeSignature/CodeSignature")));
  const CodeSigningFailure failure = bed_.refusal(list);
  EXPECT_EQ(failure.status, errSecCSBadObjectFormat);
  EXPECT_EQ(failure.reason, list + ": is a bundle's list, not a program");
}

TEST_F(BundleSignatureTest, AMissingListOrSignatureIsRefused) {
  std::filesystem::remove(inside("_CodeSignature/CodeResources"));
  expectRefused(errSecCSBadResource, "CodeResources: is missing");
  std::filesystem::remove(inside("_CodeSignature/CodeSignature"));
  expectRefused(errSecCSUnsigned, "CodeSignature: is missing");
}

TEST_F(BundleSignatureTest, AFolderInsideThatOthersCanWriteIsRefused) {
  ASSERT_EQ(::chmod(inside("Resources").c_str(), 0777), 0);
  expectRefused(kErrnoStatusBase + EPERM, "can be written by others");
}

TEST_F(BundleSignatureTest, AnUnsignedProgramIsNotCoveredByTheSealAlone) {
  bed_.makeFile("Sample.bundle/Contents/Linux/program");
  seal();
  EXPECT_TRUE(bed_.check(bundle_));
  EXPECT_EQ(bed_.refusal(inside("Linux/program")).status, errSecCSUnsigned);
}

TEST_F(BundleSignatureTest, TheDepthOfABundleIsBounded) {
  // The bundle's own folder is depth 0, Contents 1.
  std::string folder = "Sample.bundle/Contents";
  for (std::size_t depth = 2; depth < kMaxBundleDepth; ++depth) folder += "/d";
  for (int i = 0; i < 2; ++i) {
    bed_.folder().write(folder + "/file", "");
    seal();
    EXPECT_TRUE(bed_.check(bundle_));
    if (i == 0) folder += "/d";
  }
  bed_.folder().write(folder + "/d/file", "");
  expectRefused(errSecCSBadResource, "lies more than 32 folders deep");
}

TEST_F(BundleSignatureTest, TheSizeOfABundleIsBounded) {
  const auto present = listBundle(bundle_)->facts.size();
  for (std::size_t items = present + 1; items <= kMaxBundleItems; ++items) {
    std::filesystem::create_hard_link(inside("Resources/text"), inside(std::to_string(items)));
    if (items + 1 < kMaxBundleItems) continue;
    EXPECT_TRUE(listBundle(bundle_)) << items;
  }
  std::filesystem::create_hard_link(inside("Resources/text"), inside("one more"));
  const auto listed = listBundle(bundle_);
  ASSERT_FALSE(listed);
  EXPECT_THAT(listed.error().reason, HasSubstr("holds more than 16384"));
}

TEST(BundleSealTest, AnIllFormedListIsRefused) {
  const auto refused = [](Value value) {
    const auto bytes = writePropertyList(value, PropertyListFormat::kXml);
    const auto seal = readBundleSeal(*bytes, "list");
    return !seal && seal.error().status == errSecCSBadResource;
  };
  const Data hash(32, 1);
  const auto listOf = [](Value entry) {
    return Value(Dictionary{{"files2", Dictionary{{"a", std::move(entry)}}}});
  };
  EXPECT_FALSE(refused(listOf(Dictionary{{"hash2", hash}})));
  EXPECT_FALSE(refused(listOf(Dictionary{{"symlink", "b"}})));
  EXPECT_FALSE(refused(Dictionary{{"files2", Dictionary()}}));
  EXPECT_TRUE(refused(listOf(Dictionary{{"hash2", Data(31, 1)}})));
  EXPECT_TRUE(refused(listOf(Dictionary{{"hash2", Data(33, 1)}})));
  EXPECT_TRUE(refused(listOf(Dictionary{{"hash2", hash}, {"optional", true}})));
  EXPECT_TRUE(refused(listOf(Dictionary{{"symlink", ""}})));
  EXPECT_TRUE(refused(listOf(Dictionary{{"hash", hash}})));
  EXPECT_TRUE(refused(listOf("text")));
  EXPECT_TRUE(refused(Dictionary()));
  EXPECT_TRUE(refused(Dictionary{{"files2", Dictionary()}, {"files", Dictionary()}}));
  EXPECT_TRUE(refused(Array{1}));
}

TEST(BundleAroundProgramTest, IsTheOutermost) {
  EXPECT_EQ(bundleAroundProgram("/a/X.bundle/Contents/Linux/p"), "/a/X.bundle");
  EXPECT_EQ(bundleAroundProgram("/X.bundle/Contents/Y.bundle/Contents/Linux/p"), "/X.bundle");
  EXPECT_EQ(bundleAroundProgram("/Contents/X.bundle/Contents/Contents/p"), "/Contents/X.bundle");
  EXPECT_EQ(bundleAroundProgram("/a/X/Contents/Linux/p"), "");
  EXPECT_EQ(bundleAroundProgram("/a/.bundle/Contents/Linux/p"), "");
  EXPECT_EQ(bundleAroundProgram("/a/X.bundle/Linux/p"), "");
  EXPECT_EQ(bundleAroundProgram("/usr/bin/p"), "");
  EXPECT_EQ(bundleAroundProgram("/a/X.kext/Contents/Linux/p"), "/a/X.kext");
  EXPECT_EQ(bundleAroundProgram("/a/X.app/Contents/Linux/p"), "/a/X.app");
  EXPECT_EQ(bundleAroundProgram("/X.bundle/Contents/Resources/Y.kext/Contents/Linux/p"),
            "/X.bundle");
  EXPECT_EQ(bundleAroundProgram("/a/.kext/Contents/Linux/p"), "");
  EXPECT_EQ(bundleAroundProgram("/a/X.d/Contents/Linux/p"), "");
}

}  // namespace
}  // namespace platform
