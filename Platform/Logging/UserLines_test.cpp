#include "Platform/Logging/UserLines.h"

#include <chrono>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class UserLinesTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kOwnUser = 900;
  static constexpr std::uint32_t kFirstUser = 1000;

  std::size_t writable(std::uint32_t user, std::size_t lines) {
    std::size_t count = 0;
    for (std::size_t line = 0; line < lines; ++line) count += lines_->mayWrite(user) ? 1 : 0;
    return count;
  }
  void passPeriod() {
    loop_.runReady();
    loop_.advanceBy(UserLines::kPeriod);
  }

  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  const std::shared_ptr<UserLines> lines_ =
      std::make_shared<UserLines>(kOwnUser, loop_, log_, "Ident");
};

TEST_F(UserLinesTest, TheFirstLinesOfAUserAreWritten) {
  EXPECT_EQ(writable(kFirstUser, UserLines::kLinesPerUser), UserLines::kLinesPerUser);
  passPeriod();
  EXPECT_THAT(sink_.texts(), IsEmpty());
}

TEST_F(UserLinesTest, OneLineTellsTheCountOfAMinute) {
  EXPECT_EQ(writable(kFirstUser, UserLines::kLinesPerUser + 100'000), UserLines::kLinesPerUser);
  loop_.runReady();
  loop_.advanceBy(UserLines::kPeriod - 1ns);
  EXPECT_THAT(sink_.texts(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_EQ(sink_.messages(), (std::vector<FakeLogSink::Message>{
                                  {"Ident", "com.vantor.platform", ASL_LEVEL_WARNING,
                                   "100000 lines about requests of user 1000 were left out"}}));
  EXPECT_EQ(writable(kFirstUser, 1), 1u);
}

TEST_F(UserLinesTest, AUserLeavesOthersTheirLines) {
  writable(kFirstUser, 1000);
  EXPECT_EQ(writable(kFirstUser + 1, 1), 1u);
}

TEST_F(UserLinesTest, ALaterMinuteHasItsOwnLines) {
  writable(kFirstUser, UserLines::kLinesPerUser);
  passPeriod();
  EXPECT_EQ(writable(kFirstUser, UserLines::kLinesPerUser), UserLines::kLinesPerUser);
}

TEST_F(UserLinesTest, RootAndTheOwnUserHaveNoLimit) {
  EXPECT_EQ(writable(0, 1000), 1000u);
  EXPECT_EQ(writable(kOwnUser, 1000), 1000u);
  passPeriod();
  EXPECT_THAT(sink_.texts(), IsEmpty());
}

TEST_F(UserLinesTest, AllUsersTogetherAreLimited) {
  constexpr std::uint32_t kMany = 10'000;
  std::size_t written = 0;
  for (std::uint32_t user = kFirstUser; user < kFirstUser + kMany; ++user) {
    written += writable(user, 2);
  }
  EXPECT_EQ(written, UserLines::kLinesOfAll);
  passPeriod();
  EXPECT_LE(sink_.texts().size(), UserLines::kUsers + 1);
  EXPECT_THAT(sink_.texts(), testing::Contains(testing::EndsWith("of other users were left out")));
}

TEST_F(UserLinesTest, ATimerThatIsLateTellsAll) {
  writable(kFirstUser, UserLines::kLinesPerUser + 1);
  loop_.sleepFor(2 * UserLines::kPeriod);
  EXPECT_EQ(writable(kFirstUser, 1), 0u);
  loop_.runReady();
  EXPECT_THAT(sink_.texts(), ElementsAre("2 lines about requests of user 1000 were left out"));
}

TEST_F(UserLinesTest, TheEndTellsTheCountOnce) {
  auto lines = std::make_shared<UserLines>(kOwnUser, loop_, log_, "Ident");
  for (int line = 0; line < 100; ++line) lines->mayWrite(kFirstUser);
  lines.reset();
  EXPECT_THAT(sink_.texts(), ElementsAre("90 lines about requests of user 1000 were left out"));
  passPeriod();
  EXPECT_EQ(sink_.texts().size(), 1u);
}

TEST_F(UserLinesTest, CountsThatWereToldEarlyAreNotToldAgain) {
  writable(kFirstUser, UserLines::kLinesPerUser + 1);
  lines_->tellCounts();
  EXPECT_THAT(sink_.texts(), ElementsAre("1 lines about requests of user 1000 were left out"));
  passPeriod();
  EXPECT_EQ(sink_.texts().size(), 1u);
}

}  // namespace
}  // namespace platform
