// Symbolic links of a bundle, which the kernel resolves, while other processes rename files.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"

namespace platform {
namespace {

// Processes that do nothing but rename a file to and fro.
class RenamingProcesses {
 public:
  RenamingProcesses(const std::string& folder, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string one = folder + "/renamed" + std::to_string(i);
      const std::string other = one + "-again";
      std::filesystem::create_directories(one);
      const pid_t child = ::fork();
      if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (true) {
          std::rename(one.c_str(), other.c_str());
          std::rename(other.c_str(), one.c_str());
        }
      }
      EXPECT_GT(child, 0);
      if (child > 0) processes_.push_back(child);
    }
  }
  RenamingProcesses(const RenamingProcesses&) = delete;
  RenamingProcesses& operator=(const RenamingProcesses&) = delete;
  ~RenamingProcesses() {
    for (const pid_t process : processes_) {
      ::kill(process, SIGKILL);
      ::waitpid(process, nullptr, 0);
    }
  }

 private:
  std::vector<pid_t> processes_;
};

class BundleLinksTest : public testing::Test {
 protected:
  // Links with "..", which the kernel resolves only while nothing is renamed.
  void addLinks(int count) {
    for (int i = 0; i < count; ++i) {
      std::filesystem::create_symlink("../Linux/program",
                                      bundle_ + "/Contents/Resources/up" + std::to_string(i));
    }
    const auto done = signBundle(bundle_, CodeSigningBed::signer(), CodeSigningBed::options());
    ASSERT_TRUE(done) << describe(done.error());
  }

  CodeSigningBed bed_;
  const std::string bundle_ = bed_.makeBundle("Sample.bundle");
};

TEST_F(BundleLinksTest, RenamesOfOtherProcessesDoNotDamageABundle) {
  addLinks(40);
  const std::string elsewhere = bed_.folder().path("elsewhere");
  const RenamingProcesses processes(elsewhere, 4);
  for (int i = 0; i < 200; ++i) {
    const auto listed = listBundle(bundle_);
    ASSERT_TRUE(listed) << i << " " << listed.error().reason;
  }
  EXPECT_TRUE(bed_.check(bundle_));
}

TEST_F(BundleLinksTest, ALinkIsResolvedAgainAfterARename) {
  addLinks(1);
  int calls = 0;
  withInterceptedSystemCall(
      SYS_openat2,
      [&](const InterceptedCall& call) { return calls = call.nth, call.nth <= 3 ? EAGAIN : 0; },
      [&] { EXPECT_TRUE(listBundle(bundle_)); });
  EXPECT_EQ(calls, 5);  // Four for the first link, one for the other.
}

TEST_F(BundleLinksTest, EndlessRenamesEndTheSearch) {
  addLinks(1);
  withInterceptedSystemCall(
      SYS_openat2, [](const InterceptedCall&) { return EAGAIN; },
      [&] {
        const auto listed = listBundle(bundle_);
        ASSERT_FALSE(listed);
        EXPECT_EQ(listed.error().status, kErrnoStatusBase + EAGAIN);
      });
}

}  // namespace
}  // namespace platform
