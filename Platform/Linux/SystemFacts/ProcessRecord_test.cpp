#include "Platform/Linux/SystemFacts/ProcessRecord.h"

#include <cstdint>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(ProcessStatTest, TheCommandNameMayHoldAnything) {
  const std::string_view names[] = {"demo", "",     ")",    "(",      "a) S 7 (b", ") S 1 ",
                                    "a b",  "\xff", "a\nb", "((()))", "1 (x) R 2"};
  for (const std::string_view name : names) {
    const auto stat =
        parseProcessStat("4321 (" + std::string(name) + ") S 17 4321 4321 0 -1 4194560 1\n");
    ASSERT_TRUE(stat) << name << stat.error().context;
    EXPECT_EQ(stat->process, 4321);
    EXPECT_EQ(stat->parent, 17) << name;
    EXPECT_EQ(stat->command, name);
  }
}

TEST(ProcessStatTest, ParentsAreTakenAsTheyStand) {
  EXPECT_EQ(parseProcessStat("1 (init) S 0 1")->parent, 0);
  EXPECT_EQ(parseProcessStat("2 (x) Z 2147483647 1")->parent, INT32_MAX);
  EXPECT_EQ(parseProcessStat("2 (x) R -1 1")->parent, -1);
  EXPECT_EQ(parseProcessStat("2 (x) R 12")->parent, 12);
}

TEST(ProcessStatTest, MalformedTextIsRefused) {
  const std::string_view texts[] = {"",
                                    "\n",
                                    "1",
                                    "1 ",
                                    "1 (",
                                    "1 (x",
                                    "1 (x)",
                                    "1 (x) ",
                                    "1 (x) S",
                                    "1 (x) S ",
                                    "1 (x) SS 1 2",
                                    "1 (x)S 1 2",
                                    "1 (x) S x 2",
                                    "1 (x) S 1x 2",
                                    "1 (x) S 2147483648 2",
                                    "x (x) S 1 2",
                                    "99999999999 (x) S 1 2",
                                    "1 x) S 1 2",
                                    "1(x) S 1 2"};
  for (const std::string_view text : texts) {
    const auto stat = parseProcessStat(text);
    ASSERT_FALSE(stat) << text;
    EXPECT_EQ(stat.error().code, ErrorCode::kInvalid) << text;
  }
}

TEST(ProcessMembershipTest, TheFieldsAreFoundBehindTheCommand) {
  const std::string fields = " S 1 20 30 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 9 0 12345 0\n";
  for (const char* command : {"sh", "", "a) R 1 2 3 (", "a\nb"}) {
    const auto membership = parseProcessMembership("17 (" + std::string(command) + ")" + fields);
    ASSERT_TRUE(membership) << command;
    EXPECT_EQ(membership->state, 'S');
    EXPECT_EQ(membership->group, 20);
    EXPECT_EQ(membership->session, 30);
    EXPECT_EQ(membership->threads, 9);
  }
}

TEST(ProcessMembershipTest, ACutOrMalformedFileIsRejected) {
  for (const char* text : {"", "17 (sh", "17 (sh)", "17 (sh) S 1 20",
                           "17 (sh) S 1 20 30 0 -1 4194560 1 2 3 4 5 6 7 8 20 0",
                           "17 (sh) S 1 20 30 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 x 0\n",
                           "17 (sh) S 1 x 30 0 -1 4194560 1 2 3 4 5 6 7 8 20 0 9 0\n"}) {
    EXPECT_FALSE(parseProcessMembership(text)) << text;
  }
}

TEST(ProcessStatusTest, TheUsersAreTheRealAndTheEffectiveOne) {
  const auto status = parseProcessStatus(
      "Name:\tUid:\\t5\nUmask:\t0022\nTgid:\t70\nNgid:\t0\nPid:\t71\n"
      "Uid:\t501\t4294967294\t7\t8\nGid:\t1\t2\t3\t4\nGroups:\t1 2 3");
  ASSERT_TRUE(status) << status.error().context;
  EXPECT_EQ(status->threadGroup, 70);
  EXPECT_EQ(status->realUser, 501u);
  EXPECT_EQ(status->effectiveUser, 4294967294u);
}

TEST(ProcessStatusTest, MalformedOrTruncatedTextIsRefused) {
  const std::string_view texts[] = {"",
                                    "Tgid:\t70\n",
                                    "Uid:\t1\t2\t3\t4\n",
                                    "Tgid:\t70\nUid:\t1\t2\t3\t4",
                                    "Tgid:\t\nUid:\t1\t2\t3\t4\n",
                                    "Tgid:\t70x\nUid:\t1\t2\t3\t4\n",
                                    "Tgid:\t70\nUid:\t1\n",
                                    "Tgid:\t70\nUid:\t1 2 3 4\n",
                                    "Tgid:\t70\nUid:\t-1\t2\t3\t4\n",
                                    "Tgid:\t70\nUid:\t1\t2x\t3\t4\n",
                                    "Tgid:\t70\nUid:\t1\t4294967296\t3\t4\n",
                                    "Tgid:\t2147483648\nUid:\t1\t2\t3\t4\n"};
  for (const std::string_view text : texts) {
    const auto status = parseProcessStatus(text);
    ASSERT_FALSE(status) << text;
    EXPECT_EQ(status.error().code, ErrorCode::kInvalid) << text;
  }
}

TEST(BootTimeLineTest, IsFoundAmongTheOthers) {
  EXPECT_EQ(parseBootTime("cpu  1 2 3\nintr 1 2\nctxt 5\nbtime 1767323045\nprocesses 9\n"),
            1767323045);
  EXPECT_EQ(parseBootTime("btime 0\n"), 0);
  EXPECT_EQ(parseBootTime("btime 9223372036854775807\n"), INT64_MAX);
}

TEST(BootTimeLineTest, AMissingOrMalformedLineIsRefused) {
  for (const std::string_view text :
       {"", "cpu 1\n", "btime 1", "btime\n", "btime \n", "btime x\n", "btime 1x\n", "btime -1\n",
        "btime 1 2\n", "btime 9223372036854775808\n", "xbtime 1\n", " btime 1\n"}) {
    const auto seconds = parseBootTime(text);
    ASSERT_FALSE(seconds) << text;
    EXPECT_EQ(seconds.error().code, ErrorCode::kInvalid) << text;
  }
}

}  // namespace
}  // namespace platform
