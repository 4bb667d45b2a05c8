#include "Platform/Jobs/JobTree.h"

#include <chrono>
#include <cstdint>

#include <gtest/gtest.h>

#include "Platform/Jobs/Jobs.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

TEST(JobTreeTest, ATreeIsReadAsItWasWritten) {
  for (const JobTree& tree :
       {JobTree(), JobTree{3, 1234567us, 4096}, JobTree{1, 1h, std::nullopt}}) {
    EXPECT_EQ(jobTreeIn(Dictionary{{kJobTreeKey, valueOfTree(tree)}}), tree);
  }
}

TEST(JobTreeTest, ACopyWithoutATreeHasNone) {
  EXPECT_FALSE(jobTreeIn(Dictionary()));
  EXPECT_FALSE(jobTreeIn(Dictionary{{kJobTreeKey, "text"}}));
}

TEST(JobTreeTest, AnImpossibleTimeIsBounded) {
  for (const std::int64_t time : {INT64_MIN, INT64_MAX}) {
    const auto tree = jobTreeIn(Dictionary{{kJobTreeKey, Dictionary{{kJobTreeCpuTimeKey, time}}}});
    ASSERT_TRUE(tree);
    EXPECT_GE(tree->cpuTime, Duration::zero());
  }
}

}  // namespace
}  // namespace platform
