#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ServiceManager/ServiceManager/ExecInfo_fixture.h"

namespace {

using namespace platform;
using Kind = SecStaticCode::Kind;

class ExecInfoTest : public ExecInfoFixture {};

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

TEST_F(ExecInfoTest, ALinkOrADownloadHasItsSigner) {
  signatures_.addValid("/home/user/download", Kind::kProgram, "com.vantor.sample");
  signatures_.addLink("/link", "/home/user/download");
  signatures_.setElsewhere("/home/user/download");
  EXPECT_EQ(handler_->calculateSigningForPath("/link"), "valid: com.vantor.sample");
  EXPECT_EQ(handler_->calculateSigningForPath("/home/user/download"), "valid: com.vantor.sample");
}

// The kernel asks the holder of a lease for it with a signal, as soon as another opens the file.
TEST_F(ExecInfoTest, ALeaseHidesNoFile) {
  const std::string path = folder_.write("file", "abc");
  static int holder;
  holder = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  const auto before = std::signal(SIGIO, [](int) { ::fcntl(holder, F_SETLEASE, F_UNLCK); });
  ASSERT_EQ(::fcntl(holder, F_SETLEASE, F_WRLCK), 0);
  std::string hash;
  handler_->requestExecutableInfo(
      path, [&](const auto&, const std::string& told, const auto&) { hash = told; });
  EXPECT_EQ(hash, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(::fcntl(holder, F_GETLEASE), F_UNLCK);
  std::signal(SIGIO, before);
  ::close(holder);
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
    std::optional<VerifiedFile> verifiedFile() const override { return std::nullopt; }
  };
  struct Signatures final : CodeSignatures {
    CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
        const std::string&) override {
      return std::make_unique<Code>();
    }
    std::optional<CodeProtection> protectionOf(const std::string&) override { return std::nullopt; }
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
  const auto answers = [&] {
    std::optional<std::string> all;
    handler_->requestExecutableInfo(
        file, [&](const std::string& signing, const std::string& hash, const std::string& source) {
          EXPECT_FALSE(all);
          all = signing + " " + std::to_string(hash.size()) + " " + source;
        });
    return all;
  };
  EXPECT_EQ(answers(), "valid: com.vantor.sample 64 https://example.com/");
  handler_->stop();
  EXPECT_EQ(answers(), " 0 ");
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
