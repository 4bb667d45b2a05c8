#include "JobHost/Processes/JobMark.h"

#include <string>

#include <gtest/gtest.h>

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"

namespace jobhost {
namespace {

TEST_F(ProcessSpawnerTest, TheMarkNamesHostStartLabelAndLeader) {
  StartFields start;
  start.startedAt = 1234;
  JobDefinition job = script("tr '\\0' '\\n' </proc/$$/environ | grep ^VANTOR_JOB; echo $$");
  job.label = "com.example:job";
  job.environment = {{kJobMarkVariable, "a forged one"}};
  record_ = makeRecord(RecordKind::kStarted, startPayload(start, job.label));
  const auto spawned = spawner_->spawn(job, {file_.get(), record_}, {});
  ASSERT_TRUE(spawned);
  awaitEnd(*spawned);
  const std::string text = output();
  const std::string process = std::to_string(spawned->process);
  EXPECT_EQ(text,
            "VANTOR_JOB=0000000000000abc:1234:com.example:job:" + process + "\n" + process + "\n");
  const auto mark = parseJobMark(text.substr(0, text.find('\n')));
  ASSERT_TRUE(mark);
  EXPECT_EQ(mark->host, kHost);
  EXPECT_EQ(mark->startedAt, 1234);
  EXPECT_EQ(mark->label, "com.example:job");
  EXPECT_EQ(mark->leader, spawned->process);
}

TEST(JobMark, AMarkTellsThatTheGroupIsAbandoned) {
  for (const bool abandons : {false, true}) {
    const auto mark = parseJobMark(jobMarkVariable({1, 2, "a:b", 3, abandons}));
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->abandonsGroup, abandons);
    EXPECT_EQ(mark->startedAt, 2);
    EXPECT_EQ(mark->label, "a:b");
  }
}

TEST(JobMark, AMalformedVariableIsNone) {
  const std::string good = jobMarkVariable({1, 2, "a", 3});
  ASSERT_TRUE(parseJobMark(good));
  for (std::size_t size = 0; size < good.size() - 10; ++size) {
    EXPECT_FALSE(parseJobMark(good.substr(0, size))) << size;
  }
  for (const char* variable :
       {"VANTOR_JOBS=0000000000000001:2:a:3", "VANTOR_JOB=1:2:a:3",
        "VANTOR_JOB=0000000000000001:2:a:", "VANTOR_JOB=0000000000000001:a:3",
        "VANTOR_JOB=000000000000000x:2:a:3"}) {
    EXPECT_FALSE(parseJobMark(variable)) << variable;
  }
}

}  // namespace
}  // namespace jobhost
