// The URLs that files were downloaded from, and the delegate's answers that they depend on.

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <sqlite3.h>

#include "ServiceManager/ServiceManager/ExecInfo_fixture.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;

class ExecInfoSourceTest : public ExecInfoFixture {};

// A request may wait for the delegate while other requests use it.
TEST_F(ExecInfoSourceTest, AfterTheDaemonsEndTheDelegateIsNotAsked) {
  attributes_.set("/file", kQuarantine, "id");
  home_ = folder_.path();
  handler_->stop();
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(delegateCalls_, 0);
  EXPECT_TRUE(lines().empty());
}

// The main thread removes the delegate when the daemon ends, and a settings server may hang.
TEST_F(ExecInfoSourceTest, ADelegateIsRemovedWhileItIsAsked) {
  makeDatabase(events(event("id", "https://example.com/id")));
  attributes_.set("/file", kQuarantine, "id");
  meanwhile_ = [this] { handler_->setDelegate(nullptr); };
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), "https://example.com/id");
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(delegateCalls_, 1);
}

class LongExecInfoQuery : public ExecInfoSourceTest {
 protected:
  LongExecInfoQuery() {
    makeDatabase(
        events("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < "
               "10000) INSERT INTO LSQuarantineEvent SELECT 'other', 'url' FROM n;" +
               event("id", "https://example.com/id")));
    attributes_.set("/file", kQuarantine, "id");
  }
};

TEST_F(LongExecInfoQuery, TheDaemonsEndEndsAQuery) {
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), "https://example.com/id");
  meanwhile_ = [this] { handler_->stop(); };
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
}

TEST_F(LongExecInfoQuery, TheClientsEndEndsAQuery) {
  FakeXPC server(network_, {200, 0, 0}, systemLog_);
  FakeXPC client(network_, {300, 501, 20}, systemLog_);
  auto listener = server.xpc.makeAnonymousListener();
  listener->setDelegate(handler_);
  listener->resume();
  auto connection = client.xpc.makeConnection(listener->endpoint());
  connection->setRemoteObjectInterface(protocols_.find(kORBExecutableInfoProtocol));
  connection->resume();
  Lines sources;
  const auto ask = [&] {
    connection->sendMessage(
        "requestExecutableInfo:withReply:", {Value("/file")},
        [&](const Array& reply) { sources.push_back(*reply.at(2).string()); }, nullptr);
    lines();
    loop_.runReady();
    return lines();
  };
  const std::string inVain = "7 No source url found for path '/file'\n";
  EXPECT_THAT(ask(), testing::Not(testing::Contains(inVain)));
  meanwhile_ = [] { NSXPCConnection::currentConnection()->invalidate(); };
  EXPECT_THAT(ask(), testing::Contains(inVain));
  EXPECT_EQ(delegateCalls_, 2);
  EXPECT_THAT(sources, testing::Contains("https://example.com/id").Times(1));
  connection.reset();
  listener.reset();
  loop_.runReady();
}

TEST_F(LongExecInfoQuery, AQueryEndsAtItsTimeLimit) {
  tick_ = std::chrono::microseconds(1);
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), "https://example.com/id");
  tick_ = ORBExecInfoHandler::kQuarantineQueryTime;
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
}

TEST_F(ExecInfoSourceTest, ASlowDelegateWithoutAHomeIsPaused) {
  using std::chrono::nanoseconds;
  attributes_.set("/file", kQuarantine, "id");
  const auto isAsked = [&] {
    const int before = delegateCalls_;
    lines();
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
    EXPECT_EQ(lines(), (Lines{"7 Couldn't locate quarantine database"}));
    return delegateCalls_ > before;
  };
  answerTime_ = ORBExecInfoHandler::kSlowDelegateTime - nanoseconds(1);
  EXPECT_TRUE(isAsked());
  answerTime_ += nanoseconds(1);
  EXPECT_TRUE(isAsked());
  EXPECT_FALSE(isAsked());
  now_ += ORBExecInfoHandler::kDelegatePause - nanoseconds(1);
  EXPECT_FALSE(isAsked());
  now_ += nanoseconds(1);
  EXPECT_TRUE(isAsked());
  EXPECT_FALSE(isAsked());
}

TEST_F(ExecInfoSourceTest, TheSourceIsTheFirstOfTheWhereFroms) {
  setWhereFroms(Array{"https://example.com/file", "https://example.com/"});
  attributes_.set("/file", kQuarantine, "0;1;agent;id");
  EXPECT_EQ(handler_->calculateSourceUrlForPath("/file"), "https://example.com/file");
  EXPECT_EQ(delegateCalls_, 0);
  EXPECT_TRUE(lines().empty());
}

TEST_F(ExecInfoSourceTest, WithoutWhereFromsTheQuarantineRecordIsUsed) {
  makeDatabase(events(event("id", "https://example.com/q")));
  attributes_.set("/file", kQuarantine, "0081;5f;Browser;id");
  for (const Value& list :
       {Value(Array{}), Value(Dictionary{{"a", 1}}), Value("text"), Value(Array{1}),
        Value(Array{std::string("https://example.com/\0", 21)})}) {
    setWhereFroms(list);
    EXPECT_EQ(handler_->calculateSourceUrlForPath("/file"), "https://example.com/q");
  }
  for (const char* bytes : {"", "bplist00", "bplist00 and no more", "<plist>", "\xff\xff"}) {
    attributes_.set("/file", kWhereFroms, bytes);
    EXPECT_EQ(handler_->calculateSourceUrlForPath("/file"), "https://example.com/q");
  }
  EXPECT_TRUE(lines().empty());
}

TEST_F(ExecInfoSourceTest, WithoutAttributesTheirErrorNumbersAreInTheLog) {
  EXPECT_EQ(handler_->calculateSourceUrlForPath("/file"), "");
  EXPECT_EQ(lines(), (Lines{"7 Failed to get attributes for file '/file': 61",
                            "7 Failed to get attributes for file '/file': 61"}));
}

TEST_F(ExecInfoSourceTest, AttributesMayBe4096BytesAndNoMore) {
  makeDatabase(events(event(std::string(4096, 'i'), "https://example.com/long")));
  for (const std::size_t size : {4095u, 4096u, 4097u}) {
    attributes_.set("/file", kQuarantine, std::string(size - 4095, ';') + std::string(4095, 'i'));
    lines();
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
    EXPECT_EQ(lines(), size <= 4096 ? (Lines{"7 No source url found for path '/file'\n"})
                                    : (Lines{"7 Failed to get attributes for file '/file': 34"}));
  }
  attributes_.set("/file", kQuarantine, std::string(4096, 'i'));
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), "https://example.com/long");
}

TEST_F(ExecInfoSourceTest, TheQuarantineAttributesLastFieldIsTheIdentifier) {
  makeDatabase(events(event("id", "https://example.com/id") + event("a", "https://example.com/a")));
  for (const char* text : {"0081;5f;Browser;id", ";id", "id"}) {
    attributes_.set("/file", kQuarantine, text);
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), "https://example.com/id") << text;
  }
  for (const char* text : {"", "id;", "ID", "a;b", "x' OR 'a'='a", "0;\xff"}) {
    attributes_.set("/file", kQuarantine, text);
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt) << text;
  }
}

TEST_F(ExecInfoSourceTest, WithoutAHomeThereIsNoDatabase) {
  attributes_.set("/file", kQuarantine, "id");
  for (const Value& home : {Value(), Value(7)}) {
    home_ = home;
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
    EXPECT_EQ(lines(), (Lines{"7 Couldn't locate quarantine database"}));
  }
}

TEST_F(ExecInfoSourceTest, ADatabaseThatCantBeOpenedHasNoSource) {
  attributes_.set("/file", kQuarantine, "id");
  home_ = folder_.path("nobody");
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(lines(),
            (Lines{"7 Failed to open database!", "7 No source url found for path '/file'\n"}));
}

class UselessDatabase : public ExecInfoSourceTest,
                        public testing::WithParamInterface<const char*> {};

TEST_P(UselessDatabase, HasNoSource) {
  makeDatabase(GetParam());
  attributes_.set("/file", kQuarantine, "id");
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(lines(), (Lines{"7 No source url found for path '/file'\n"}));
}

INSTANTIATE_TEST_SUITE_P(
    OfAnySchema, UselessDatabase,
    testing::Values(
        "", "CREATE TABLE Other (a);", "CREATE TABLE LSQuarantineEvent (a);",
        "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier, "
        "LSQuarantineOriginURLString); INSERT INTO LSQuarantineEvent VALUES ('id', NULL);",
        "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier, "
        "LSQuarantineOriginURLString); INSERT INTO LSQuarantineEvent VALUES ('id', x'ff');",
        // Its owner wants the query to run for ever.
        "CREATE VIEW LSQuarantineEvent AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 "
        "FROM n) SELECT i AS LSQuarantineEventIdentifier, i AS LSQuarantineOriginURLString FROM "
        "n;"));

TEST_F(ExecInfoSourceTest, ACorruptDatabaseHasNoSource) {
  home_ = folder_.path();
  folder_.write("Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2",
                "SQLite format 3 it is not, though it is long enough to be taken for one" +
                    std::string(4096, 'x'));
  attributes_.set("/file", kQuarantine, "id");
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(lines(), (Lines{"7 No source url found for path '/file'\n"}));
}

TEST_F(ExecInfoSourceTest, ALockedDatabaseFailsAtOnce) {
  const std::string path = makeDatabase(events(event("id", "https://example.com/id")));
  attributes_.set("/file", kQuarantine, "id");
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(lines(), (Lines{"7 No source url found for path '/file'\n"}));
  sqlite3_close(other);
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), "https://example.com/id");
}

}  // namespace
