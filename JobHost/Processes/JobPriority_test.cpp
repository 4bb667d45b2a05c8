#include "JobHost/Processes/JobPriority.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"

namespace jobhost {
namespace {

using platform::Dictionary;
using platform::Value;
using testing::HasSubstr;

constexpr int kBestEffort = 2 << 13;
constexpr int kIdle = 3 << 13;

JobPriority priorityWith(Dictionary more) {
  Dictionary dictionary{{"Label", "com.example.job"}, {"Program", "/bin/true"}};
  for (const auto& [key, value] : more) dictionary.set(key, value);
  const auto definition = parseJobDefinition(Value(dictionary));
  EXPECT_TRUE(definition) << platform::describe(definition.error());
  return priorityOf(*definition);
}

TEST(JobPriorityTest, TheTypeAndTheKeysDecide) {
  struct Row {
    Dictionary keys;
    int nice;
    int ioPriority;
    int weight;
  };
  const Row rows[] = {
      {{}, 0, 0, 100},
      {{{"ProcessType", "Standard"}}, 0, 0, 100},
      {{{"ProcessType", "Adaptive"}}, 0, 0, 100},
      {{{"ProcessType", "Interactive"}}, 0, kBestEffort, 200},
      {{{"ProcessType", "Background"}}, 10, kBestEffort | 7, 20},
      {{{"ProcessType", "Background"}, {"Nice", 0}}, 0, kBestEffort | 7, 20},
      {{{"ProcessType", "Background"}, {"LowPriorityBackgroundIO", true}}, 10, kIdle, 20},
      {{{"LowPriorityBackgroundIO", true}}, 0, 0, 100},
      {{{"LowPriorityIO", true}}, 0, kBestEffort | 7, 100},
      {{{"LowPriorityIO", true}, {"ProcessType", "Interactive"}}, 0, kBestEffort | 7, 200},
      {{{"Nice", 20}}, 19, 0, 100},
      {{{"Nice", -3}}, -3, 0, 100},
  };
  for (const Row& row : rows) {
    const JobPriority priority = priorityWith(row.keys);
    EXPECT_EQ(priority.nice, row.nice) << &row - rows;
    EXPECT_EQ(priority.ioPriority, row.ioPriority) << &row - rows;
    EXPECT_EQ(priority.weight, row.weight) << &row - rows;
  }
}

TEST_F(ProcessSpawnerTest, ABackgroundProcessHasALowPriority) {
  JobDefinition job = script("ionice; nice");
  job.processType = ProcessType::kBackground;
  EXPECT_EQ(outputOf(job), "best-effort: prio 7\n10\n");
}

TEST(JobPriorityTest, AnotherTypeIsRejected) {
  for (const Value& type : {Value("background"), Value(1), Value("")}) {
    const auto refused = parseJobDefinition(
        Dictionary{{"Label", "com.example.job"}, {"Program", "/bin/true"}, {"ProcessType", type}});
    ASSERT_FALSE(refused);
    EXPECT_THAT(refused.error().context,
                HasSubstr("key \"ProcessType\": expected \"Background\", \"Standard\""));
  }
}

}  // namespace
}  // namespace jobhost
