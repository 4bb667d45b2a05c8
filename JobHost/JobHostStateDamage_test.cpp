// Real jobs go on whatever happens to the state file while no host runs.

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/JobHostBed_contract.h"

namespace jobhost {
namespace {

using platform::ProcessId;

class JobHostStateDamage : public RealJobHostTest {
 protected:
  static constexpr int kJobCount = 20;

  void SetUp() override {
    for (int i = 0; i < kJobCount; ++i) {
      const std::string label = "com.example.job" + std::to_string(i);
      ASSERT_TRUE(submit(scriptJob(label, "exec sleep 1000")));
      expected_[label] = pidOf(label);
    }
    dropHost();
    whole_ = platform::contentOfFile(state_);
  }
  void TearDown() override {
    put(whole_);
    startHost();
  }

  void removeState() const { std::filesystem::remove_all(state_); }
  void put(const std::string& content) const {
    removeState();
    root_.write("run/vantor/launchd.state", content);
    ASSERT_EQ(::chmod(state_.c_str(), 0600), 0);
  }

  // Starts a host and drops it. Expects that it has each job with its process, has started nothing,
  // and says at most one line about its file.
  void expectAllKept(const std::string& damage) {
    sink_.clear();
    startHost();
    std::map<std::string, ProcessId> found;
    for (const std::string& label : host_->labels()) found[label] = pidOf(label);
    EXPECT_EQ(found, expected_) << damage;
    EXPECT_EQ(sink_.count("started process"), 0) << damage;
    EXPECT_LE(sink_.count("launchd.state"), 1) << damage;
    dropHost();
  }

  // At every byte that is a multiple of `step`.
  void damageEachByte(std::size_t step) {
    for (std::size_t i = 0; i < whole_.size() && !HasFailure(); i += step) {
      put(whole_.substr(0, i));
      expectAllKept("cut at " + std::to_string(i));
      std::string flipped = whole_;
      flipped[i] = static_cast<char>(flipped[i] ^ (1 << (i % 8)));
      put(flipped);
      expectAllKept("flipped at " + std::to_string(i));
    }
  }

  const std::string state_ = root_.path("run/vantor/launchd.state");
  std::map<std::string, ProcessId> expected_;
  std::string whole_;
};

TEST_F(JobHostStateDamage, AFileOfAnotherKindCostsNoProcess) {
  removeState();
  expectAllKept("missing");
  removeState();
  ASSERT_EQ(::symlink("/dev/null", state_.c_str()), 0);
  expectAllKept("a link");
  removeState();
  ASSERT_EQ(::mkdir(state_.c_str(), 0700), 0);
  expectAllKept("a folder");
  removeState();
  ASSERT_EQ(::mkfifo(state_.c_str(), 0600), 0);
  expectAllKept("a pipe");
  put(whole_);
  ASSERT_EQ(::chmod(state_.c_str(), 0644), 0);
  expectAllKept("another mode");
  put(std::string(whole_.size(), '\0'));
  expectAllKept("zeros");
  if (::geteuid() != 0) return;  // Only root can give a file away.
  put(whole_);
  ASSERT_EQ(::chown(state_.c_str(), 1, 1), 0);
  expectAllKept("another owner");
}

TEST_F(JobHostStateDamage, ADamagedFileCostsNoProcess) { damageEachByte(97); }

// The same at every byte.
class JobHostStateDamageLong : public JobHostStateDamage {};

TEST_F(JobHostStateDamageLong, ADamagedFileCostsNoProcess) {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  damageEachByte(1);
#else
  damageEachByte(7);
#endif
}

}  // namespace
}  // namespace jobhost
