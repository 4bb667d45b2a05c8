// One file, because each test runs the same program beside the same daemon on the real transport.

#include "Tools/servicemanagerctl/XPCCommands.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Files/FakeExtendedAttributes.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

using namespace platform;
using testing::HasSubstr;

constexpr char kAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

// A registry that answers no request; optionally it does not even authenticate itself.
class HungRegistry final : public NSXPCListenerDelegate,
                           public NSXPCExportedObject,
                           public std::enable_shared_from_this<HungRegistry> {
 public:
  HungRegistry(const ProtocolTable& protocols, std::optional<Value> signature)
      : protocols_(protocols), signature_(std::move(signature)) {}

  bool listener(NSXPCListener& /*listener*/,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    connection->setExportedInterface(protocols_.find(kORBServiceManagerXPCInterfaceProtocol));
    connection->setExportedObject(shared_from_this());
    connection->resume();
    return true;
  }
  void receiveMessage(std::string_view selector, const Array& /*arguments*/,
                      XPCReply reply) override {
    if (selector == "signatureWithReply:" && signature_) reply({*signature_});
  }

 private:
  const ProtocolTable& protocols_;
  const std::optional<Value> signature_;
};

// Changes the working folder for as long as this lives.
class InFolder {
 public:
  explicit InFolder(const std::string& folder) : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(folder);
  }
  InFolder(const InFolder&) = delete;
  InFolder& operator=(const InFolder&) = delete;
  ~InFolder() { std::filesystem::current_path(before_); }

 private:
  const std::filesystem::path before_;
};

// The operator's program, and a daemon that serves endpoints, both on the real transport, since the
// command waits for messages that its other threads receive.
class XPCCommandsTest : public testing::Test {
 protected:
  struct Ran {
    int status;
    std::string output;
    std::string errors;
  };

  XPCCommandsTest() {
    std::filesystem::create_directories(folder_.path("run/vantor/mach"));
    addServiceManagerProtocols(protocols_);
  }
  ~XPCCommandsTest() override {
    execListener_.reset();
    listener_.reset();
    daemon_.reset();
  }

  std::unique_ptr<LinuxXPC> makeXPC() {
    return std::move(*LinuxXPC::make(
        log_, ListenerPlaces(defaultPlatformConfiguration(folder_.path())), std::nullopt));
  }
  void serveNothing(std::optional<Value> signature) {
    daemon_ = makeXPC();
    hungRegistry_ = std::make_shared<HungRegistry>(protocols_, std::move(signature));
    listener_ = daemon_->xpc().makeListener(kEndpointRegistryService);
    listener_->setDelegate(hungRegistry_);
    listener_->resume();
  }
  void serve() {
    daemon_ = makeXPC();
    registry_ =
        std::make_shared<ORBServiceManagerXPCHandler>(loop_, daemonsSystem_, *center_, protocols_);
    listener_ = daemon_->xpc().makeListener(kEndpointRegistryService);
    listener_->setDelegate(registry_);
    listener_->resume();
    info_ = std::make_shared<ORBExecInfoHandler>(
        ORBExecInfoHandler::Environment{signatures_, attributes_, protocols_}, nullptr);
    execListener_ = daemon_->xpc().makeAnonymousListener();
    execListener_->setDelegate(info_);
    execListener_->resume();
    registry_->registerXPCListenerEndpoint(execListener_->endpoint(), kExecInfoEndpoint);
  }

  // The time-outs, for tests of these.
  struct TimeOuts {
    std::chrono::seconds hash = std::chrono::hours(1);
    std::chrono::seconds anyAnswer = std::chrono::hours(1);
    std::chrono::seconds lookUp = std::chrono::hours(1);
  };
  Ran run(std::vector<std::string> arguments, const TimeOuts& timeOuts) {
    CLI::App app;
    const XPCCommands commands(app);
    std::ranges::reverse(arguments);  // CLI11 takes them in reverse.
    app.parse(std::move(arguments));
    EXPECT_TRUE(commands.parsed());
    const auto xpc = makeXPC();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = commands.run({xpc->xpc(),
                                     system_,
                                     protocols_,
                                     "/srv/root",
                                     [this] { return whyNotConnected_; },
                                     timeOuts.hash,
                                     timeOuts.anyAnswer,
                                     timeOuts.lookUp,
                                     {},
                                     false,
                                     faultOfPlace_,
                                     protectionOf_});
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  }
  Ran run(std::vector<std::string> arguments) { return run(std::move(arguments), TimeOuts()); }

  // Each of these commands ends with that status and prints nothing but that message.
  using CommandLines = std::vector<std::vector<std::string>>;
  void expectFailures(const CommandLines& commands, const TimeOuts& timeOuts, int status,
                      const testing::Matcher<const std::string&>& errors) {
    for (const std::vector<std::string>& command : commands) {
      SCOPED_TRACE(testing::PrintToString(command));
      const Ran failed = run(command, timeOuts);
      EXPECT_EQ(failed.status, status);
      EXPECT_EQ(failed.output, "");
      EXPECT_THAT(failed.errors, errors);
    }
  }
  const CommandLines asking_{{"endpoints", "lookup", "name"}, {"execinfo", "/bin/true"}};
  const CommandLines all_{{"endpoints", "lookup", "name"},
                          {"endpoints", "register", "name"},
                          {"execinfo", "/bin/true"}};

  std::optional<PeerConnectFailure> whyNotConnected_ = PeerConnectFailure{
      PeerConnectFailure::Kind::kNobodyThere, {ErrorCode::kNotFound, ENOENT, "connecting"}};
  std::function<std::string(const std::string& file)> faultOfPlace_;
  std::function<std::optional<CodeProtection>(const std::string& file)> protectionOf_;
  TemporaryFolder folder_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  VirtualRunLoop loop_;
  FakeNotificationBus bus_{loop_};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(log_);
  FakeSystemInformation system_;
  FakeSystemInformation daemonsSystem_;
  FakeCodeSignatures signatures_;
  FakeExtendedAttributes attributes_;
  ProtocolTable protocols_;
  std::unique_ptr<LinuxXPC> daemon_;
  std::shared_ptr<ORBServiceManagerXPCHandler> registry_;
  std::shared_ptr<HungRegistry> hungRegistry_;
  std::shared_ptr<ORBExecInfoHandler> info_;
  std::shared_ptr<NSXPCListener> listener_;
  std::shared_ptr<NSXPCListener> execListener_;
};

TEST_F(XPCCommandsTest, ARegisteredNameIsReported) {
  serve();
  const Ran found = run({"endpoints", "lookup", kExecInfoEndpoint});
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.output, "com.vantor.xpc.name.execinfohandler is registered\n");
  EXPECT_EQ(found.errors, "");
  const Ran asJson = run({"endpoints", "lookup", "--json", kExecInfoEndpoint});
  EXPECT_EQ(asJson.status, 0);
  EXPECT_EQ(nlohmann::json::parse(asJson.output),
            (nlohmann::json{{"name", kExecInfoEndpoint}, {"registered", true}, {"version", 1}}));
}

TEST_F(XPCCommandsTest, AnUnregisteredNameIsAFailureWithItsReason) {
  serve();
  const Ran missing = run({"endpoints", "lookup", "nobody"});
  EXPECT_EQ(missing.status, kExitFailed);
  EXPECT_EQ(missing.output, "nobody is not registered; its owner has been asked to register it\n");
  const Ran asJson = run({"endpoints", "lookup", "nobody", "--json"});
  EXPECT_EQ(asJson.status, kExitFailed);
  EXPECT_EQ(nlohmann::json::parse(asJson.output),
            (nlohmann::json{{"name", "nobody"}, {"registered", false}, {"version", 1}}));
}

TEST_F(XPCCommandsTest, ARegistrationThatIsRefusedSaysWhy) {
  serve();
  const Ran refused = run(
      {"endpoints", "register", std::string(ORBServiceManagerXPCHandler::kMaxNameBytes + 1, 'n')});
  EXPECT_EQ(refused.status, kExitFailed);
  EXPECT_EQ(refused.output, "");
  EXPECT_EQ(refused.errors,
            "servicemanagerctl: the service manager refused: The name is too long.\n");
}

TEST_F(XPCCommandsTest, FilesAreShownAsATable) {
  serve();
  const std::string known = folder_.write("known", "abc");
  signatures_.addValid(known, SecStaticCode::Kind::kProgram, "com.vantor.sample");
  attributes_.set(
      known, kWhereFromsAttribute,
      *writePropertyList(Array{"https://example.com/known"}, PropertyListFormat::kBinary));
  const std::string unknown = folder_.path("unknown");
  const Ran told = run({"execinfo", known, unknown});
  EXPECT_EQ(told.status, 0);
  EXPECT_EQ(told.output, known +
                             "\n"
                             "  signing  valid: com.vantor.sample\n"
                             "  sha256   " +
                             kAbc +
                             "\n"
                             "  source   https://example.com/known\n" +
                             unknown +
                             "\n"
                             "  signing  -\n"
                             "  sha256   -\n"
                             "  source   -\n");
  EXPECT_EQ(told.errors, "");
}

TEST_F(XPCCommandsTest, ThePlaceOfAFileIsAFactOfItsOwn) {
  serve();
  const std::string known = folder_.write("known", "abc");
  faultOfPlace_ = [](const std::string& file) { return file == "/" ? "" : file + " is open"; };
  EXPECT_THAT(run({"execinfo", known}).output,
              testing::HasSubstr("  place    not trusted: " + known + " is open\n"));
  EXPECT_THAT(run({"execinfo", "/"}).output, testing::HasSubstr("  place    trusted\n"));
  const auto json = nlohmann::json::parse(run({"execinfo", "--json", known, "/"}).output);
  EXPECT_EQ(json[0]["isPlaceTrusted"], false);
  EXPECT_EQ(json[1]["isPlaceTrusted"], true);
}

TEST_F(XPCCommandsTest, TheProtectionOfAFileIsTold) {
  serve();
  protectionOf_ = [](const std::string& file) {
    return file == "/" ? std::nullopt : std::optional(CodeProtection::kImmutable);
  };
  EXPECT_THAT(run({"execinfo", "/bin"}).output, testing::HasSubstr("  kept by  its place, where "));
  EXPECT_THAT(run({"execinfo", "/"}).output, testing::Not(testing::HasSubstr("kept by")));
  const auto json = nlohmann::json::parse(run({"execinfo", "--json", "/bin"}).output);
  EXPECT_EQ(json[0]["protection"], "immutable");
}

TEST_F(XPCCommandsTest, ProgramsGetFilesAsJson) {
  serve();
  const std::string known = folder_.write("known", "abc");
  const Ran told = run({"execinfo", "--json", folder_.path("folder/../known"), "/nowhere"});
  EXPECT_EQ(told.status, 0);
  EXPECT_EQ(
      nlohmann::json::parse(told.output),
      (nlohmann::json{{{"path", known}, {"signing", ""}, {"sha256", kAbc}, {"source", ""}},
                      {{"path", "/nowhere"}, {"signing", ""}, {"sha256", ""}, {"source", ""}}}));
}

// Facts about "etc/passwd" must not be those of that path in the daemon's folder.
TEST_F(XPCCommandsTest, ARelativePathMayNameAMissingFile) {
  serve();
  const InFolder here(folder_.path());
  const Ran told = run({"execinfo", "--json", "etc/passwd"});
  EXPECT_EQ(told.status, 0);
  EXPECT_EQ(nlohmann::json::parse(told.output),
            (nlohmann::json{{{"path", folder_.path("etc/passwd")},
                             {"signing", ""},
                             {"sha256", ""},
                             {"source", ""}}}));
}

// Root enters the closed folder and finds nothing there; nobody gets through the circle.
TEST_F(XPCCommandsTest, ARelativePathMayBeUnresolvable) {
  serve();
  const std::string closed = folder_.path("closed");
  std::filesystem::create_directory(closed);
  std::filesystem::permissions(closed, std::filesystem::perms::none);
  std::filesystem::create_symlink("circle", folder_.path("circle"));
  const InFolder here(folder_.path());
  const Ran told = run({"execinfo", "closed/file", "circle/file"});
  std::filesystem::permissions(closed, std::filesystem::perms::owner_all);
  EXPECT_EQ(told.status, 0);
  EXPECT_THAT(told.output, HasSubstr(folder_.path("closed/file\n")));
  EXPECT_THAT(told.output, HasSubstr(folder_.path("circle/file\n")));
}

TEST_F(XPCCommandsTest, AnInvalidPathIsRefused) {
  serve();
  const Ran empty = run({"execinfo", ""});
  EXPECT_EQ(empty.status, kExitFailed);
  EXPECT_EQ(empty.errors, "servicemanagerctl: \"\" can't be told from here: Invalid argument\n");
  std::filesystem::create_directory(folder_.path("removed"));
  const InFolder here(folder_.path("removed"));
  std::filesystem::remove(folder_.path("removed"));
  const Ran lost = run({"execinfo", "file"});
  EXPECT_EQ(lost.status, kExitFailed);
  EXPECT_THAT(lost.errors, HasSubstr("\"file\" can't be told from here: No such file"));
}

TEST_F(XPCCommandsTest, APathThatIsNotUtf8IsRefusedByName) {
  serve();
  const Ran told = run({"execinfo", folder_.path("\xff")});
  EXPECT_EQ(told.status, kExitFailed);
  EXPECT_THAT(told.errors, HasSubstr("UTF-8"));
}

TEST_F(XPCCommandsTest, ProgramsGetTheFilesBeforeAFailure) {
  serve();
  const std::string known = folder_.write("known", "abc");
  const Ran told = run({"execinfo", "--json", known, folder_.path("\xff"), known});
  EXPECT_EQ(told.status, kExitFailed);
  EXPECT_EQ(nlohmann::json::parse(told.output),
            (nlohmann::json{{{"path", known}, {"signing", ""}, {"sha256", kAbc}, {"source", ""}}}));
  EXPECT_THAT(told.errors, HasSubstr("UTF-8"));
}

TEST_F(XPCCommandsTest, AFileWithoutAnAnswerIsNamedInTheEnd) {
  serve();
  // It is never resumed, so clients wait.
  auto listener = daemon_->xpc().makeAnonymousListener();
  registry_->registerXPCListenerEndpoint(listener->endpoint(), kExecInfoEndpoint);
  const Ran told = run({"execinfo", "/bin/true"}, {.hash = std::chrono::seconds(0)});
  EXPECT_EQ(told.status, kExitFailed);
  EXPECT_EQ(told.output, "");
  EXPECT_THAT(told.errors, HasSubstr("has not answered for 0 s; /"));
  EXPECT_THAT(told.errors, testing::Not(HasSubstr("product")));
}

TEST_F(XPCCommandsTest, ADaemonThatNeverAnswersTimesOut) {
  serveNothing(std::nullopt);
  expectFailures(all_, {.anyAnswer = std::chrono::seconds(0)}, kExitFailed,
                 "servicemanagerctl: the service manager has not answered for 0 s; it is there, "
                 "but too busy or stuck: try again later, and see \"servicemanagerctl log\"\n");
}

// The service manager never answers a client of another product.
TEST_F(XPCCommandsTest, AnUnansweredLookupSaysWhichProgramToUse) {
  serveNothing(Value(clientProfileData(system_)));
  expectFailures(asking_, {.lookUp = std::chrono::seconds(0)}, kExitNotAuthenticated,
                 "servicemanagerctl: the service manager has not answered for 0 s; it answers "
                 "nobody who is not of its product: use the servicemanagerctl that was installed "
                 "with it\n");
}

TEST_F(XPCCommandsTest, WithoutADaemonNobodyIsThere) {
  expectFailures(all_, TimeOuts(), kExitNobodyThere,
                 HasSubstr("no service manager serves endpoints below /srv/root; is it running?"));
}

TEST_F(XPCCommandsTest, ADaemonThatTakesNoConnectionIsNotMissing) {
  // as a daemon that was stopped by a signal
  whyNotConnected_ = PeerConnectFailure{PeerConnectFailure::Kind::kTimedOut,
                                        {ErrorCode::kSystem, ETIMEDOUT, "connecting"}};
  expectFailures(all_, TimeOuts(), kExitFailed,
                 "servicemanagerctl: the service manager takes no connection; it is there, but too "
                 "busy or stuck: try again later, and see \"servicemanagerctl log\"\n");
}

TEST_F(XPCCommandsTest, ADaemonThatIsThereAgainIsNotCalledBusy) {
  whyNotConnected_.reset();  // as a daemon that was restarted while it was asked
  expectFailures(all_, TimeOuts(), kExitFailed,
                 "servicemanagerctl: the service manager ended the connection before it answered; "
                 "it may have been restarted: try again, and see \"servicemanagerctl log\"\n");
}

TEST_F(XPCCommandsTest, AnEmptyNameIsNotUnderstood) {
  serve();
  for (const char* command : {"lookup", "register"}) {
    const Ran empty = run({"endpoints", command, ""});
    EXPECT_EQ(empty.status, kExitNotUnderstood);
    EXPECT_EQ(empty.output, "");
    EXPECT_EQ(empty.errors, "servicemanagerctl: the endpoint's name is empty\n");
  }
}

TEST_F(XPCCommandsTest, ForeignControlCharactersAreEscaped) {
  serve();
  const Ran missing = run({"endpoints", "lookup", "a\033[2J"});
  EXPECT_EQ(missing.output,
            "a\\u001b[2J is not registered; its owner has been asked to register it\n");
  const Ran told = run({"execinfo", folder_.path("a\033[2J")});
  EXPECT_THAT(told.output, testing::StartsWith(folder_.path("a\\u001b[2J\n")));
}

TEST_F(XPCCommandsTest, AnotherProductsDaemonIsNotTrusted) {
  daemonsSystem_.setBootTime(FakeSystemInformation::kBootTime + 1);
  serve();
  const Ran stranger = run({"execinfo", "/bin/true"});
  EXPECT_EQ(stranger.status, kExitNotAuthenticated);
  EXPECT_EQ(stranger.output, "");
  EXPECT_THAT(stranger.errors, HasSubstr("not this product's service manager"));
}

}  // namespace
