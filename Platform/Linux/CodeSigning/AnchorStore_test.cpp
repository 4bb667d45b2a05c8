#include "Platform/Linux/CodeSigning/AnchorStore.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class AnchorStoreTest : public testing::Test {
 protected:
  std::shared_ptr<const AnchorSet> load() { return store_.current(bed_.now()); }
  int count() { return sk_X509_num(load()->certificates.get()); }
  std::string path(const std::string& name) {
    return bed_.folder().path("etc/vantor/anchors/" + name);
  }
  void write(const std::string& name, const std::string& content) {
    bed_.folder().write("etc/vantor/anchors/" + name, content);
  }
  static std::string foreignPem() {
    return pemOfCertificate(CodeSigningBed::foreignAuthority().chain.front().get()).value();
  }

  CodeSigningBed bed_;  // It has one anchor.
  AnchorStore store_{bed_.folder().path("etc/vantor/anchors"),
                     bed_.folder().path("etc/vantor/revoked"), TrustedPlace(::geteuid())};
};

TEST_F(AnchorStoreTest, StaysLoadedWhileNothingChanges) {
  EXPECT_EQ(load(), load());
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(load()->remarks, IsEmpty());
}

TEST_F(AnchorStoreTest, TakesDerAndSeveralInOneFile) {
  const Data der = derOfCertificate(CodeSigningBed::foreignAuthority().chain.front().get());
  write("other.der", std::string(der.begin(), der.end()));
  EXPECT_EQ(count(), 2);
  write("other.der", "Some text\n" + foreignPem() + "between\n" + foreignPem());
  EXPECT_EQ(count(), 3);
}

TEST_F(AnchorStoreTest, AFileWithoutACertificateIsSkippedAndRemarked) {
  write("README", "No certificate here.\n");
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(load()->remarks, ElementsAre(path("README") + ": holds no certificate"));
}

TEST_F(AnchorStoreTest, AFileThatOthersCanWriteIsNotTrusted) {
  ASSERT_EQ(::chmod(path("authority.pem").c_str(), 0664), 0);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(load()->remarks, ElementsAre(HasSubstr("authority.pem can be written by others")));
  const CodeSigningFailure failure = bed_.refusal(bed_.makeProgram("bin/program"));
  EXPECT_EQ(failure.status, errSecCSReqFailed);
  EXPECT_THAT(failure.reason, HasSubstr("authority.pem can be written by others"));
}

TEST_F(AnchorStoreTest, AFolderThatOthersCanWriteIsNeverTrusted) {
  for (const mode_t mode : {mode_t{0775}, mode_t{0757}, mode_t{01777}}) {
    ASSERT_EQ(::chmod(path("").c_str(), mode), 0);
    EXPECT_EQ(count(), 0) << mode;
    EXPECT_THAT(load()->remarks, ElementsAre(HasSubstr("can be written by others")));
  }
  ASSERT_EQ(::chmod(path("").c_str(), 0755), 0);
  EXPECT_EQ(count(), 1);
}

TEST_F(AnchorStoreTest, AFileOfAnotherUserIsNotTrusted) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  ASSERT_EQ(::chown(path("authority.pem").c_str(), 12345, 12345), 0);
  EXPECT_EQ(count(), 0);
}

TEST_F(AnchorStoreTest, AMissingFolderLeavesNoAnchors) {
  std::filesystem::remove_all(path(""));
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(load()->remarks, ElementsAre(HasSubstr("No such file or directory")));
}

TEST_F(AnchorStoreTest, LinksAreNotFollowedAndPipesDoNotBlock) {
  std::filesystem::rename(path("authority.pem"), bed_.folder().path("elsewhere.pem"));
  std::filesystem::create_symlink("../../../elsewhere.pem", path("link.pem"));
  ASSERT_EQ(::mkfifo(path("pipe.pem").c_str(), 0600), 0);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(load()->remarks, ElementsAre(HasSubstr("link.pem: is not a regular file"),
                                           HasSubstr("pipe.pem: is not a regular file")));
}

TEST_F(AnchorStoreTest, TheSizeOfAFileIsBounded) {
  const auto padded = [&](std::size_t size) {
    std::string text = foreignPem();
    text.resize(size, '\n');
    return text;
  };
  for (const std::size_t size : {AnchorStore::kMaxFileBytes - 1, AnchorStore::kMaxFileBytes}) {
    write("large.pem", padded(size));
    EXPECT_EQ(count(), 2) << size;
  }
  write("large.pem", padded(AnchorStore::kMaxFileBytes + 1));
  EXPECT_EQ(count(), 1);
  EXPECT_THAT(load()->remarks, ElementsAre(HasSubstr("is larger than")));
}

TEST_F(AnchorStoreTest, TheNumberOfFilesIsBounded) {
  for (std::size_t files = 2; files <= AnchorStore::kMaxFiles; ++files) {
    write(std::to_string(files) + ".pem", foreignPem());
    if (files + 1 < AnchorStore::kMaxFiles) continue;
    EXPECT_EQ(count(), static_cast<int>(files));
  }
  write("more.pem", foreignPem());
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(load()->remarks, ElementsAre(HasSubstr("holds more than 64 files")));
}

TEST_F(AnchorStoreTest, TheNumberOfCertificatesIsBounded) {
  constexpr int kMost = AnchorStore::kMaxCertificates;
  for (const int certificates : {kMost - 1, kMost, kMost + 1}) {
    std::string text;
    // Beside the one that is there already.
    for (int i = 1; i < certificates; ++i) text += foreignPem();
    write("many.pem", text);
    EXPECT_EQ(count(), std::min(certificates, kMost));
    if (certificates <= kMost) {
      EXPECT_THAT(load()->remarks, IsEmpty());
    } else {
      EXPECT_THAT(load()->remarks,
                  ElementsAre(path("many.pem") + ": holds one certificate too many"));
    }
  }
}

TEST_F(AnchorStoreTest, AFileChangedWithinTwoSecondsIsLoadedAgain) {
  struct stat status{};
  ASSERT_EQ(::stat(path("authority.pem").c_str(), &status), 0);
  const WallTime changed(std::chrono::seconds(status.st_ctim.tv_sec) +
                         std::chrono::nanoseconds(status.st_ctim.tv_nsec));
  EXPECT_NE(store_.current(changed + 2s - 1ns), store_.current(changed + 2s - 1ns));
  const auto settled = store_.current(changed + 3s);
  EXPECT_EQ(store_.current(changed + 3s), settled);
}

}  // namespace
}  // namespace platform
