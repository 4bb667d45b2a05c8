#include "Platform/Messages/Protocol.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(ProtocolTest, AdmitsOnlyItsExactSelectors) {
  const Protocol protocol("Installer", {{"evaluateServices", MethodDescription::Kind::kOneWay},
                                        {"shutdownServices:", MethodDescription::Kind::kTwoWay}});
  ASSERT_NE(protocol.method("shutdownServices:"), nullptr);
  EXPECT_EQ(protocol.method("shutdownServices:")->kind, MethodDescription::Kind::kTwoWay);
  EXPECT_EQ(protocol.method("evaluateServices")->kind, MethodDescription::Kind::kOneWay);
  EXPECT_EQ(protocol.method("shutdownServices"), nullptr);
  EXPECT_EQ(protocol.method("ShutdownServices:"), nullptr);
  EXPECT_EQ(protocol.method(""), nullptr);
}

TEST(ProtocolTest, ASelectorHasOneArgumentForEachColon) {
  EXPECT_EQ(MethodDescription{.selector = "services"}.argumentCount(), 0u);
  EXPECT_EQ(MethodDescription{.selector = "a:b:"}.argumentCount(), 2u);
}

TEST(ProtocolTest, TheFirstMethodOfASelectorCounts) {
  const Protocol protocol(
      "P", {{"a", MethodDescription::Kind::kOneWay}, {"a", MethodDescription::Kind::kTwoWay}});
  EXPECT_EQ(protocol.methods().size(), 1u);
  EXPECT_EQ(protocol.method("a")->kind, MethodDescription::Kind::kOneWay);
}

TEST(NameTableTest, FindsEntriesByTheirExactNames) {
  SelectorTable<int(int)> table;
  EXPECT_TRUE(table.add("twice:", [](int n) { return 2 * n; }));
  ASSERT_NE(table.find("twice:"), nullptr);
  EXPECT_EQ((*table.find("twice:"))(21), 42);
  EXPECT_EQ(table.find("twice"), nullptr);
  EXPECT_EQ(table.find("Twice:"), nullptr);
}

TEST(NameTableTest, RefusesATakenAndAnEmptyName) {
  NameTable<int> table;
  EXPECT_TRUE(table.add("a", 1));
  EXPECT_FALSE(table.add("a", 2));
  EXPECT_FALSE(table.add("", 3));
  EXPECT_EQ(*table.find("a"), 1);
  EXPECT_EQ(table.find(""), nullptr);
}

}  // namespace
}  // namespace platform
