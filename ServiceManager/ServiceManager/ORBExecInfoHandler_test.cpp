#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sqlite3.h>
#include <sys/stat.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using Kind = SecStaticCode::Kind;
using Lines = std::vector<std::string>;

constexpr char kWhereFroms[] = "com.apple.metadata:kMDItemWhereFroms";
constexpr char kQuarantine[] = "com.apple.quarantine";

class ExecInfoTest : public ServiceManagerFixture, public ExecInfoHandlerDelegate {
 protected:
  ExecInfoTest() {
    handler_ = std::make_shared<ORBExecInfoHandler>(
        ORBExecInfoHandler::Environment{signatures_, attributes_, protocols_,
                                        [this] { return now_ += tick_; }},
        this);
  }

  Value getLastLoggedInUserHomeDirectory() override {
    ++questions_;
    now_ += answerTime_;
    if (meanwhile_) meanwhile_();
    return home_;
  }

  Lines lines() {
    queues_.runPending();
    Lines lines;
    for (const auto& message : logSink_.take()) {
      lines.push_back(std::to_string(message.level) +
                      message.text.substr(message.text.find("] ") + 1));
    }
    return lines;
  }

  // The quarantine database of a user whose home is the test's folder, after these statements.
  std::string makeDatabase(const std::string& statements) {
    folder_.write("Library/Preferences/keep", "");
    const std::string path =
        folder_.path("Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2");
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(database);
    home_ = folder_.path();
    return path;
  }
  static std::string events(const std::string& rows) {
    return "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT, "
           "LSQuarantineOriginURLString TEXT);" +
           rows;
  }
  static std::string event(const std::string& identifier, const std::string& url) {
    return "INSERT INTO LSQuarantineEvent VALUES ('" + identifier + "', '" + url + "');";
  }

  void setWhereFroms(const Value& list) {
    attributes_.set("/file", kWhereFroms, *writePropertyList(list, PropertyListFormat::kBinary));
  }

  TemporaryFolder folder_;
  Value home_;
  int questions_ = 0;
  Instant now_{};
  Duration tick_{};  // the time that passes with each reading of the clock
  Duration answerTime_{};
  std::function<void()> meanwhile_;  // while the delegate is asked
  std::shared_ptr<ORBExecInfoHandler> handler_;
};

TEST_F(ExecInfoTest, ItsLinesHaveItsOwnName) {
  handler_->calculateSourceUrlForPath("/file");
  queues_.runPending();
  EXPECT_EQ(logSink_.messagesOf("ORBExecInfoHandler").size(), 2u);
  EXPECT_EQ(logSink_.messages().size(), 2u);
}

TEST_F(ExecInfoTest, AValidSignatureHasAnIdentifier) {
  signatures_.addValid("/program", Kind::kProgram, "com.vantor.sample");
  EXPECT_EQ(handler_->calculateSigningForPath("/program"), "valid: com.vantor.sample");
  signatures_.addValid("/nameless", Kind::kProgram, std::nullopt);
  EXPECT_EQ(handler_->calculateSigningForPath("/nameless"), "valid: (null)");
  EXPECT_TRUE(lines().empty());
}

TEST_F(ExecInfoTest, EachFaultOfASignatureIsAnErrorLine) {
  EXPECT_EQ(handler_->calculateSigningForPath("/nothing"), "");
  EXPECT_EQ(lines(), (Lines{"3 Can't create security reference (SecStaticCodeCreateWithPath  "
                            "status: 100002)"}));
  signatures_.addRefused("/foreign", Kind::kProgram, {errSecCSReqFailed, "not ours"});
  EXPECT_EQ(handler_->calculateSigningForPath("/foreign"), "");
  EXPECT_EQ(lines(),
            (Lines{"3 Unable to check validity (SecStaticCodeCheckValidityWithErrors status: "
                   "-67050, error: Error Domain=NSOSStatusErrorDomain Code=-67050 \"not ours\")"}));
}

TEST_F(ExecInfoTest, AnInvalidRequirementIsAnErrorLine) {
  signatures_.addValid("/program", Kind::kProgram, "com.vantor.sample");
  const auto refuse = [](std::string_view text) -> CodeSigningResult<SecRequirement> {
    EXPECT_EQ(text, "anchor apple generic");
    return std::unexpected(CodeSigningFailure{errSecCSReqFailed, "no requirement"});
  };
  ORBExecInfoHandler handler(
      {signatures_, attributes_, protocols_, [this] { return now_; }, refuse}, nullptr);
  EXPECT_EQ(handler.calculateSigningForPath("/program"), "");
  EXPECT_EQ(lines(), (Lines{"3 Requirement creation failed (SecRequirementCreateWithString status: "
                            "-67050)"}));
  EXPECT_EQ(signatures_.checks("/program"), 0);
}

// The code is valid, but its information is gone when it is read.
TEST_F(ExecInfoTest, MissingInformationIsAnErrorLine) {
  struct Code final : SecStaticCode {
    Kind kind() const override { return Kind::kProgram; }
    CodeSigningResult<void> SecStaticCodeCheckValidityWithErrors(std::uint32_t flags,
                                                                 const SecRequirement& r) override {
      EXPECT_EQ(flags, 1u);
      EXPECT_EQ(r.text(), "anchor apple generic");
      return {};
    }
    CodeSigningResult<Dictionary> SecCodeCopySigningInformation(std::uint32_t flags) override {
      EXPECT_EQ(flags, 2u);
      return std::unexpected(CodeSigningFailure{errSecCSUnsigned, "gone"});
    }
  };
  struct Signatures final : CodeSignatures {
    CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
        const std::string&) override {
      return std::make_unique<Code>();
    }
  } signatures;
  ORBExecInfoHandler handler({signatures, attributes_, protocols_}, nullptr);
  EXPECT_EQ(handler.calculateSigningForPath("/program"), "");
  EXPECT_EQ(lines(), (Lines{"3 Unable to collect signing informatino "
                            "(SecCodeCopySigningInformation status: -67062, error: Error "
                            "Domain=NSOSStatusErrorDomain Code=-67062 \"gone\")"}));
}

TEST_F(ExecInfoTest, TheHashIsThatOfTheContent) {
  EXPECT_EQ(handler_->calculateHashForPath(folder_.write("abc", "abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_F(ExecInfoTest, AnEmptyFileHasNoHash) {
  EXPECT_EQ(handler_->calculateHashForPath(folder_.write("empty", "")), "");
}

TEST_F(ExecInfoTest, OnlyARegularFileIsHashed) {
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path :
       {folder_.path("missing"), folder_.path(), pipe, std::string("/dev/zero"),
        std::string("/proc/kcore"), std::string("/proc/kmsg"), std::string()}) {
    EXPECT_EQ(handler_->calculateHashForPath(path), "") << path;
  }
}

TEST_F(ExecInfoTest, TheDaemonsEndEndsAHash) {
  const std::string file = folder_.write("abc", "abc");
  handler_->stop();
  EXPECT_EQ(handler_->calculateHashForPath(file), "");
}

TEST_F(ExecInfoTest, AfterTheDaemonsEndAnswersAreEmpty) {
  const std::string file = folder_.write("abc", "abc");
  signatures_.addValid(file, Kind::kProgram, "com.vantor.sample");
  attributes_.set(file, kWhereFroms,
                  *writePropertyList(Array{"https://example.com/"}, PropertyListFormat::kBinary));
  const auto told = [&] {
    std::optional<std::string> all;
    handler_->requestExecutableInfo(
        file, [&](const std::string& signing, const std::string& hash, const std::string& source) {
          EXPECT_FALSE(all);
          all = signing + " " + std::to_string(hash.size()) + " " + source;
        });
    return all;
  };
  EXPECT_EQ(told(), "valid: com.vantor.sample 64 https://example.com/");
  handler_->stop();
  EXPECT_EQ(told(), " 0 ");
}

// A request may wait for the delegate while other requests use it.
TEST_F(ExecInfoTest, AfterTheDaemonsEndTheDelegateIsNotAsked) {
  attributes_.set("/file", kQuarantine, "id");
  home_ = folder_.path();
  handler_->stop();
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(questions_, 0);
  EXPECT_TRUE(lines().empty());
}

class LongExecInfoQuery : public ExecInfoTest {
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
  EXPECT_EQ(questions_, 2);
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

TEST_F(ExecInfoTest, ASlowDelegateWithoutAHomeIsPaused) {
  using std::chrono::nanoseconds;
  attributes_.set("/file", kQuarantine, "id");
  const auto isAsked = [&] {
    const int before = questions_;
    lines();
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
    EXPECT_EQ(lines(), (Lines{"7 Couldn't locate quarantine database"}));
    return questions_ > before;
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

TEST_F(ExecInfoTest, TheSourceIsTheFirstOfTheWhereFroms) {
  setWhereFroms(Array{"https://example.com/file", "https://example.com/"});
  attributes_.set("/file", kQuarantine, "0;1;agent;id");
  EXPECT_EQ(handler_->calculateSourceUrlForPath("/file"), "https://example.com/file");
  EXPECT_EQ(questions_, 0);
  EXPECT_TRUE(lines().empty());
}

TEST_F(ExecInfoTest, WithoutWhereFromsTheQuarantineRecordIsUsed) {
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

TEST_F(ExecInfoTest, WithoutAttributesTheirErrorNumbersAreInTheLog) {
  EXPECT_EQ(handler_->calculateSourceUrlForPath("/file"), "");
  EXPECT_EQ(lines(), (Lines{"7 Failed to get attributes for file '/file': 61",
                            "7 Failed to get attributes for file '/file': 61"}));
}

TEST_F(ExecInfoTest, AttributesMayBe4096BytesAndNoMore) {
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

TEST_F(ExecInfoTest, TheQuarantineAttributesLastFieldIsTheIdentifier) {
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

TEST_F(ExecInfoTest, WithoutAHomeThereIsNoDatabase) {
  attributes_.set("/file", kQuarantine, "id");
  for (const Value& home : {Value(), Value(7)}) {
    home_ = home;
    EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
    EXPECT_EQ(lines(), (Lines{"7 Couldn't locate quarantine database"}));
  }
}

TEST_F(ExecInfoTest, ADatabaseThatCantBeOpenedHasNoSource) {
  attributes_.set("/file", kQuarantine, "id");
  home_ = folder_.path("nobody");
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(lines(),
            (Lines{"7 Failed to open database!", "7 No source url found for path '/file'\n"}));
}

class UselessDatabase : public ExecInfoTest, public testing::WithParamInterface<const char*> {};

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

TEST_F(ExecInfoTest, ACorruptDatabaseHasNoSource) {
  home_ = folder_.path();
  folder_.write("Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2",
                "SQLite format 3 it is not, though it is long enough to be taken for one" +
                    std::string(4096, 'x'));
  attributes_.set("/file", kQuarantine, "id");
  EXPECT_EQ(handler_->getURLFromQuarantineForFile("/file"), std::nullopt);
  EXPECT_EQ(lines(), (Lines{"7 No source url found for path '/file'\n"}));
}

TEST_F(ExecInfoTest, ALockedDatabaseFailsAtOnce) {
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

TEST_F(ExecInfoTest, ARequestIsAnsweredOnceWithThreeTexts) {
  signatures_.addRefused("/file", Kind::kProgram, {errSecCSUnsigned, "unsigned"});
  int replies = 0;
  handler_->requestExecutableInfo(
      "/file", [&](const std::string& signing, const std::string& hash, const std::string& source) {
        ++replies;
        EXPECT_EQ(signing + hash + source, "");
      });
  EXPECT_EQ(replies, 1);
  // The lines are in the order of the answers.
  EXPECT_THAT(lines(), testing::ElementsAre("7 requestExecutableInfo request for path '/file'",
                                            testing::StartsWith("3 Unable to check validity"),
                                            testing::StartsWith("7 /file: "),
                                            "7 Failed to get attributes for file '/file': 61",
                                            "7 Failed to get attributes for file '/file': 61"));
}

}  // namespace
