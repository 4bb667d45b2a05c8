#pragma once

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateFile.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace jobhost {

inline constexpr char kBoot[] = "11111111-2222-3333-4444-555555555555/1.9";

inline platform::Value jobNamed(const std::string& label) {
  return platform::Dictionary{{"Label", label}, {"Program", "/bin/true"}};
}

class StateFileTest : public testing::Test {
 protected:
  StateFile::Opened open(std::string_view boot = kBoot) {
    auto opened = StateFile::open(folder_.path(), boot, loop_);
    EXPECT_TRUE(opened) << platform::describe(opened.error());
    return opened ? *std::move(opened) : StateFile::Opened{};
  }

  // An empty state file.
  std::unique_ptr<StateFile> create() {
    auto opened = open();
    EXPECT_TRUE(opened.file->compact({}));
    return std::move(opened.file);
  }

  // Does what a started process does.
  StartFields start(StateFile& file, std::string_view label, std::int32_t process,
                    platform::Instant at = {}) {
    auto record = file.makeStartRecord(label, at);
    const StartTicket ticket = file.ticketFor(record);
    completeStartRecord(ticket.record.data(), process, 77, 88);
    EXPECT_EQ(::write(ticket.file, ticket.record.data(), ticket.record.size()),
              static_cast<ssize_t>(ticket.record.size()));
    return file.countStart(record);
  }

  std::string contents() const {
    std::ifstream file(path_, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }
  void put(const std::string& contents, mode_t mode = 0600) const {
    ::unlink(path_.c_str());
    std::ofstream(path_, std::ios::binary) << contents;
    ::chmod(path_.c_str(), mode);
  }
  static std::vector<std::string> labelsOf(const std::vector<StoredJob>& jobs) {
    std::vector<std::string> labels;
    for (const StoredJob& job : jobs) labels.push_back(job.label);
    return labels;
  }

  // Expects that the file at the path is set aside for this reason, and that a new one works.
  void expectSetAside(const std::string& reason, std::string_view boot = kBoot) {
    {
      auto opened = open(boot);
      EXPECT_THAT(opened.jobs, testing::IsEmpty());
      ASSERT_EQ(opened.warnings.size(), 1);
      EXPECT_THAT(opened.warnings[0], testing::HasSubstr("not trusted"));
      EXPECT_THAT(opened.warnings[0], testing::HasSubstr(reason));
      struct stat status{};
      EXPECT_EQ(::lstat((path_ + ".set-aside").c_str(), &status), 0);
      EXPECT_EQ(::lstat(path_.c_str(), &status), -1);
      ASSERT_TRUE(opened.file->compact({}));
      ASSERT_TRUE(opened.file->appendSubmitted(JobOrigin::kSubmitted, jobNamed("new")));
    }
    EXPECT_THAT(labelsOf(open(boot).jobs), testing::ElementsAre("new"));
  }

  platform::TemporaryFolder folder_;
  platform::VirtualRunLoop loop_;
  const std::string path_ = folder_.path("launchd.state");
};

}  // namespace jobhost
