#include "JobHost/Output/ServiceOutput.h"

#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace jobhost {
namespace {

class HostOutputTest : public testing::Test {
 protected:
  HostOutputTest() {
    configuration_.root = folder_.path();
    std::filesystem::create_directory(folder_.path("pipes"));
    auto output = ServiceOutput::create(configuration_, folder_.path("pipes"), log_);
    EXPECT_TRUE(output) << platform::describe(output.error());
    if (output) output_ = *std::move(output);
  }

  platform::UniqueFd openFor(uid_t user) {
    JobDefinition job;
    job.label = "a";
    JobAccount account;
    account.user = user;
    return output_->output()(job, account);
  }

  platform::TemporaryFolder folder_;
  platform::PlatformConfiguration configuration_;
  platform::VirtualRunLoop loop_;
  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "jobhost"};
  std::unique_ptr<ServiceOutput> output_;
};

// The owner of a pipe can hold up the thread that reads it.
TEST_F(HostOutputTest, OnlyJobsOfTheHostsOwnUserGetAPipe) {
  EXPECT_FALSE(openFor(::geteuid() + 1));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path("pipes")));
  EXPECT_TRUE(openFor(::geteuid()));
}

// UndefinedBehaviorSanitizer takes a descriptor to look at an object's type.
#if !defined(__SANITIZE_ADDRESS__)
TEST_F(HostOutputTest, TakesOverAgainUntilItSucceeds) {
  {
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{.rlim_cur = 3, .rlim_max = before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    output_->takeOver(loop_);
    loop_.advanceBy(2 * ServiceOutput::kRetryInterval);
    ::setrlimit(RLIMIT_NOFILE, &before);
  }
  EXPECT_EQ(sink_.messagesAtLevel(platform::ASL_LEVEL_ERR).size(), 1U);
  ASSERT_EQ(::mkfifo(folder_.path("pipes/a.1").c_str(), 0600), 0);
  loop_.advanceBy(ServiceOutput::kRetryInterval);
  EXPECT_FALSE(std::filesystem::exists(folder_.path("pipes/a.1")));
  ASSERT_EQ(::mkfifo(folder_.path("pipes/a.2").c_str(), 0600), 0);
  loop_.advanceBy(2 * ServiceOutput::kRetryInterval);
  EXPECT_TRUE(std::filesystem::exists(folder_.path("pipes/a.2")));
}
#endif

}  // namespace
}  // namespace jobhost
