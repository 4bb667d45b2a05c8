#include "Platform/Testing/Logging/FakeLogSink.h"

#include "Platform/Logging/LogSink_contract.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FakeLogSinkHarness final : public LogSinkHarness {
 public:
  LogSink& sink() override { return sink_; }
  std::vector<ReceivedMessage> take() override {
    std::vector<ReceivedMessage> received;
    for (FakeLogSink::Message& message : sink_.take())
      received.push_back({message.ident, message.facility, message.level, message.text});
    return received;
  }
  void remove() override { sink_.fail(); }
  void restore() override { sink_.recover(); }

 private:
  FakeLogSink sink_;
};

std::unique_ptr<LogSinkHarness> makeFakeLogSinkHarness() {
  return std::make_unique<FakeLogSinkHarness>();
}

INSTANTIATE_TEST_SUITE_P(Fake, LogSinkContract, testing::Values(&makeFakeLogSinkHarness));
INSTANTIATE_TEST_SUITE_P(Fake, ImmediateLogSinkContract, testing::Values(&makeFakeLogSinkHarness));

TEST(FakeLogSinkTest, ReturnsTheWrittenMessages) {
  FakeLogSink sink;
  ASSERT_TRUE(sink.write({"A", "f", ASL_LEVEL_ERR, "no service"}));
  ASSERT_TRUE(sink.write({"B", "f", ASL_LEVEL_DEBUG, "a service"}));
  EXPECT_EQ(sink.count("service"), 2U);
  EXPECT_EQ(sink.count("no"), 1U);
  EXPECT_THAT(sink.texts(), ElementsAre("no service", "a service"));
  EXPECT_THAT(sink.messagesAtLevel(ASL_LEVEL_ERR),
              ElementsAre(FakeLogSink::Message{"A", "f", ASL_LEVEL_ERR, "no service"}));
  EXPECT_THAT(sink.messagesAtLevel(ASL_LEVEL_INFO), IsEmpty());
  EXPECT_THAT(sink.messagesOf("B"),
              ElementsAre(FakeLogSink::Message{"B", "f", ASL_LEVEL_DEBUG, "a service"}));
  sink.clear();
  EXPECT_THAT(sink.messages(), IsEmpty());
}

TEST(FakeLogSinkTest, CountsWhatItRefuses) {
  FakeLogSink sink;
  sink.fail();
  EXPECT_FALSE(sink.write({"A", "f", ASL_LEVEL_ERR, "lost"}));
  sink.recover();
  EXPECT_TRUE(sink.write({"A", "f", ASL_LEVEL_ERR, "kept"}));
  EXPECT_EQ(sink.refused(), 1U);
  EXPECT_THAT(sink.texts(), ElementsAre("kept"));
}

}  // namespace
}  // namespace platform
