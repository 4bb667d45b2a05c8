// The verdicts that the cache keeps, and the changes that end them.

#include "Platform/Linux/CodeSigning/VerdictCache.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class VerdictCacheTest : public testing::Test {
 protected:
  // The verdict's address shows whether it came from the cache.
  std::shared_ptr<const VerifiedCode> verdict(const std::string& path) {
    const auto kind = std::filesystem::is_directory(path) ? SecStaticCode::Kind::kBundle
                                                          : SecStaticCode::Kind::kProgram;
    const auto checked = bed_.signatures().check(path, kind);
    EXPECT_TRUE(checked) << checked.error().reason;
    return checked ? *checked : nullptr;
  }

  bool isRemembered(const std::string& path) {
    const auto first = verdict(path);
    return verdict(path) == first;
  }

  static WallTime changeTimeOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return WallTime(std::chrono::seconds(status.st_ctim.tv_sec) +
                    std::chrono::nanoseconds(status.st_ctim.tv_nsec));
  }

  CodeSigningBed bed_;
};

TEST_F(VerdictCacheTest, AnUnchangedProgramIsNotCheckedAgain) {
  EXPECT_TRUE(isRemembered(bed_.makeProgram("bin/program")));
}

TEST_F(VerdictCacheTest, AnUnchangedBundleAndItsProgramAreNotCheckedAgain) {
  const std::string bundle = bed_.makeBundle("Sample.bundle");
  EXPECT_TRUE(isRemembered(bundle));
  EXPECT_TRUE(isRemembered(bundle + "/Contents/Linux/program"));
}

TEST_F(VerdictCacheTest, RefusalsAreNotCached) {
  bed_.refusal(bed_.makeFile("bin/program"));
  EXPECT_EQ(bed_.signatures().remembered(), 0u);
}

TEST_F(VerdictCacheTest, AProgramWithARestoredTimeIsRefused) {
  const std::string path = bed_.makeProgram("bin/program");
  struct stat before{};
  ASSERT_EQ(::stat(path.c_str(), &before), 0);
  verdict(path);
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(::pwrite(file.get(), "X", 1, 1), 1);
  const timespec times[] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::futimens(file.get(), times), 0);
  EXPECT_EQ(bed_.refusal(path).status, errSecCSSignatureFailed);
}

TEST_F(VerdictCacheTest, AnotherFileInItsPlaceIsRefused) {
  const std::string path = bed_.makeProgram("bin/program");
  verdict(path);
  std::filesystem::rename(bed_.makeFile("bin/other"), path);
  EXPECT_EQ(bed_.refusal(path).status, errSecCSUnsigned);
}

TEST_F(VerdictCacheTest, AFolderMadeWritableForOthersEndsTheVerdict) {
  const std::string path = bed_.makeProgram("a/b/program");
  verdict(path);
  ASSERT_EQ(::chmod(bed_.folder().path("a").c_str(), 0777), 0);
  EXPECT_EQ(bed_.refusal(path).status, kErrnoStatusBase + EPERM);
}

TEST_F(VerdictCacheTest, AChangedDetachedSignatureEndsTheVerdict) {
  const std::string path = bed_.makeFile("bin/script", "#!/bin/sh\n");
  ASSERT_TRUE(signDetached(path, CodeSigningBed::signer(), CodeSigningBed::options()));
  EXPECT_TRUE(isRemembered(path));
  std::filesystem::remove(path + ".p7s");
  EXPECT_EQ(bed_.refusal(path).status, errSecCSUnsigned);
}

TEST_F(VerdictCacheTest, AnAddedOrChangedResourceEndsTheBundlesVerdicts) {
  const std::string bundle = bed_.makeBundle("Sample.bundle");
  verdict(bundle);
  verdict(bundle + "/Contents/Linux/program");
  bed_.folder().write("Sample.bundle/Contents/Resources/more", "");
  EXPECT_EQ(bed_.refusal(bundle).status, errSecCSBadResource);
  EXPECT_EQ(bed_.refusal(bundle + "/Contents/Linux/program").status, errSecCSBadResource);
}

TEST_F(VerdictCacheTest, ARemovedAnchorEndsTheVerdict) {
  const std::string path = bed_.makeProgram("bin/program");
  verdict(path);
  std::filesystem::remove(bed_.folder().path("etc/vantor/anchors/authority.pem"));
  EXPECT_EQ(bed_.refusal(path).status, errSecCSReqFailed);
}

TEST_F(VerdictCacheTest, AnAddedAnchorEndsTheVerdict) {
  const std::string path = bed_.makeProgram("bin/program");
  const auto first = verdict(path);
  bed_.anchor("other.pem", CodeSigningBed::foreignAuthority());
  EXPECT_NE(verdict(path), first);
  EXPECT_TRUE(isRemembered(path));
}

TEST_F(VerdictCacheTest, AnAnchorChangedInPlaceEndsTheVerdict) {
  const std::string path = bed_.makeProgram("bin/program");
  verdict(path);
  const std::string anchor = bed_.folder().path("etc/vantor/anchors/authority.pem");
  const UniqueFd file(::open(anchor.c_str(), O_WRONLY | O_CLOEXEC | O_TRUNC));
  const std::string other =
      pemOfCertificate(CodeSigningBed::foreignAuthority().chain.front().get()).value();
  ASSERT_EQ(::write(file.get(), other.data(), other.size()), std::ssize(other));
  EXPECT_EQ(bed_.refusal(path).status, errSecCSReqFailed);
}

TEST_F(VerdictCacheTest, TheExpiryOfTheChainEndsTheVerdictOnce) {
  const std::string path = bed_.makeProgram("bin/program");
  const auto first = verdict(path);
  bed_.setNow(CodeSigningBed::kValidTo - 1ns);
  EXPECT_EQ(verdict(path), first);
  bed_.setNow(CodeSigningBed::kValidTo);
  EXPECT_NE(verdict(path), first);  // Still valid, because it was signed in time; and cached again.
  EXPECT_TRUE(isRemembered(path));
}

TEST_F(VerdictCacheTest, AClockSetBeforeTheChainsStartEndsTheVerdict) {
  const std::string path = bed_.makeProgram("bin/program");
  EXPECT_TRUE(verdict(path));
  bed_.setNow(CodeSigningBed::kValidFrom - 1ns);
  EXPECT_FALSE(bed_.check(path));
}

TEST_F(VerdictCacheTest, AProgramChangedWithinTwoSecondsIsNotCached) {
  const std::string path = bed_.makeProgram("bin/program");
  bed_.setNow(changeTimeOf(path) + 2s - 1ns);
  EXPECT_FALSE(isRemembered(path));
  EXPECT_EQ(bed_.signatures().remembered(), 0u);
  bed_.setNow(changeTimeOf(path) + 2s);
  EXPECT_TRUE(isRemembered(path));
}

TEST_F(VerdictCacheTest, AProgramFromABuildInTheFutureIsCached) {
  const std::string path = bed_.makeProgram("bin/program");
  const timespec times[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT},
                            {.tv_sec = 1L << 32, .tv_nsec = 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  bed_.setNow(changeTimeOf(path) + 2s);
  EXPECT_TRUE(isRemembered(path));
}

TEST_F(VerdictCacheTest, AProgramWithATimeInTheFutureIsNotCached) {
  const std::string path = bed_.makeProgram("bin/program");
  bed_.setNow(changeTimeOf(path) - 1h);
  EXPECT_FALSE(isRemembered(path));
}

TEST_F(VerdictCacheTest, TheLeastRecentlyUsedVerdictIsDroppedFirst) {
  VerdictCache cache;
  const auto code = std::make_shared<const VerifiedCode>();
  const WallTime now{};
  for (std::size_t i = 0; i < VerdictCache::kMaxVerdicts; ++i) {
    cache.remember(std::to_string(i), 1, now, code);
  }
  EXPECT_EQ(cache.size(), VerdictCache::kMaxVerdicts);
  EXPECT_TRUE(cache.find("0", 1, now));
  cache.remember("one more", 1, now, code);
  EXPECT_EQ(cache.size(), VerdictCache::kMaxVerdicts);
  EXPECT_TRUE(cache.find("0", 1, now));
  EXPECT_FALSE(cache.find("1", 1, now));
  EXPECT_TRUE(cache.find("2", 1, now));
}

// An evaluation checks them in the same order each time.
TEST_F(VerdictCacheTest, AThousandProgramsAreCheckedOnce) {
  VerdictCache cache;
  std::vector<std::string> paths;
  for (int i = 0; i < 1000; ++i) {
    paths.push_back(bed_.folder().write("programs/" + std::to_string(i), ""));
  }
  const WallTime now = changeTimeOf(paths.back()) + 1h;
  int checks = 0;
  for (int pass = 0; pass < 2; ++pass) {
    for (const std::string& path : paths) {
      if (cache.find(path, 1, now)) continue;
      ++checks;
      auto code = std::make_shared<VerifiedCode>();
      FileFact fact;
      fact.path = path;
      fact.covers = FileFact::Covers::kContents;
      ASSERT_EQ(::lstat(path.c_str(), &fact.status), 0);
      code->facts.push_back(fact);
      cache.remember(path, 1, now, code);
    }
  }
  EXPECT_EQ(checks, 1000);
}

TEST_F(VerdictCacheTest, TheNumberOfFactsIsBounded) {
  VerdictCache cache;
  FileFact fact;
  fact.path = "/";
  fact.covers = FileFact::Covers::kPlace;
  ASSERT_EQ(::lstat("/", &fact.status), 0);
  const auto codeOf = [&](std::size_t facts) {
    auto code = std::make_shared<VerifiedCode>();
    code->facts.assign(facts, fact);
    return code;
  };
  const WallTime now{};
  cache.remember("too much", 1, now, codeOf(VerdictCache::kMaxFacts + 1));
  EXPECT_EQ(cache.size(), 0u);
  for (const std::size_t facts : {VerdictCache::kMaxFacts - 1, VerdictCache::kMaxFacts}) {
    cache.remember("all", 1, now, codeOf(facts));
    EXPECT_TRUE(cache.find("all", 1, now)) << facts;
  }
  cache.remember("one more", 1, now, codeOf(1));
  EXPECT_EQ(cache.size(), 1u);
  EXPECT_TRUE(cache.find("one more", 1, now));
}

TEST_F(VerdictCacheTest, ManyThreadsMayCheckWhileTheAnchorsChange) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 20;
  const std::string one = bed_.makeProgram("bin/one");
  const std::string two = bed_.makeProgram("bin/two");
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < kRounds; ++round) {
        const auto verdict = bed_.check(thread % 2 == 0 ? one : two);
        EXPECT_TRUE(verdict) << verdict.error().reason;
      }
    });
  }
  for (int round = 0; round < kRounds; ++round) {
    // Loading the anchors again does not change which code is valid.
    bed_.folder().write("etc/vantor/anchors/note", std::to_string(round));
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace platform
