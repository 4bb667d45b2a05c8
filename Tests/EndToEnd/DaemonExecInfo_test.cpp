// The daemon's facts about files of all kinds.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Platform/Digests/Digest.h"
#include "Platform/Testing/Digests/FileSha256.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr std::uintmax_t kEndless = std::uintmax_t{1} << 43;  // It takes hours to hash.
const Array kNothing{Value(""), Value(""), Value("")};

constexpr int kNotSigned = 9;

class DaemonExecInfo : public DaemonFixture {
 protected:
  void SetUp() override {
    start(1);
    service_ = asker_.connectToExecInfo();
    ASSERT_TRUE(service_);
  }

  std::optional<Array> tell(const std::string& path) {
    return RegistryClient::ask(*service_, RegistryClient::kExecInfo, {Value(path)});
  }
  std::string hashOf(const std::string& path) {
    const auto told = tell(path);
    EXPECT_TRUE(told && told->size() == 3) << path;
    return told && told->size() == 3 ? *told->at(1).string() : "no answer";
  }
  std::string sparseFile(const std::string& name, std::uintmax_t size) {
    const std::string path = root_.folder().write("files/" + name, "");
    std::filesystem::resize_file(path, size);
    return path;
  }
  // The daemon's peak memory in kibibytes.
  long mostMemory() {
    std::ifstream file("/proc/" + std::to_string(root_.processOf(DaemonRoot::kDaemon)) + "/status");
    for (std::string name; file >> name;) {
      long size = 0;
      if (name == "VmHWM:" && file >> size) return size;
    }
    ADD_FAILURE() << "the daemon is gone";
    return 0;
  }
  bool isOpenInDaemon(const std::string& path) {
    const std::filesystem::directory_iterator descriptors(
        "/proc/" + std::to_string(root_.processOf(DaemonRoot::kDaemon)) + "/fd");
    return std::ranges::any_of(descriptors, [&](const auto& descriptor) {
      std::error_code isGone;
      return std::filesystem::read_symlink(descriptor.path(), isGone) == path;
    });
  }
  // The daemon needs a few turns to notice that a caller has gone.
  void awaitClosedInDaemon(const std::string& path) {
    const std::string small = root_.folder().write("files/any", "abc");
    const Instant deadline = root_.loop().now() + 60s;
    while (isOpenInDaemon(path) && root_.loop().now() < deadline) hashOf(small);
    EXPECT_FALSE(isOpenInDaemon(path));
  }
  // Starts this many programs, each with a request for the file that has begun.
  std::list<ChildProgram> askFor(const std::string& path, std::size_t callers) {
    std::list<ChildProgram> programs;
    for (std::size_t i = 0; i < callers; ++i) {
      programs.emplace_back(
          std::vector<std::string>{root_.host().controlProgram(), "execinfo", path},
          std::vector<std::string>());
    }
    root_.awaitLog("requestExecutableInfo request for path '" + path + "'", callers);
    return programs;
  }
  // Whether the file has the attribute now; false if the file system has no attributes.
  static bool setAttribute(const std::string& path, const char* name, std::string_view value) {
    if (::setxattr(path.c_str(), name, value.data(), value.size(), 0) == 0) return true;
    EXPECT_EQ(errno, ENOTSUP);
    return false;
  }
  // Serves one file to a download tool, and runs the tool to its end.
  void download(std::vector<std::string> tool, const std::string& target);

  RegistryClient asker_{root_.path(), root_.system()};
  std::shared_ptr<NSXPCConnection> service_;
};

// Each has four times the size at which a daemon that reads a whole file into memory would be
// noticed. Larger files would show nothing more, but would take longer.
TEST_F(DaemonExecInfo, TwoLargeFilesAtOnceCostLittleMemory) {
  constexpr std::uintmax_t kSize = std::uintmax_t{1} << 29;
  const std::vector<std::string> files{sparseFile("one", kSize), sparseFile("two", kSize)};
  hashOf(root_.folder().write("files/small", "abc"));
  [[maybe_unused]] const long before = mostMemory();

  std::vector<std::shared_ptr<NSXPCConnection>> connections;
  std::vector<std::future<Array>> answers;
  for (const std::string& file : files) {
    auto answer = std::make_shared<std::promise<Array>>();
    answers.push_back(answer->get_future());
    connections.push_back(asker_.connectToExecInfo());
    connections.back()->sendMessage(
        RegistryClient::kExecInfo, {Value(file)},
        [answer](Array values) { answer->set_value(std::move(values)); }, nullptr);
  }
  const Value expected(hexadecimalText(**sha256OfFile(files.front())));  // for both files
  for (std::future<Array>& answer : answers) {
    ASSERT_EQ(answer.wait_for(100s), std::future_status::ready);
    EXPECT_EQ(answer.get().at(1), expected);
  }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(mostMemory(), before + 32 * 1024);
#endif
}

// as many as the service has threads
TEST_F(DaemonExecInfo, EndlessFilesDelayNobody) {
  const std::vector<std::string> files{sparseFile("one", kEndless), sparseFile("two", kEndless)};
  std::vector<std::shared_ptr<NSXPCConnection>> connections;
  std::atomic<int> answered = 0;
  for (const std::string& file : files) {
    connections.push_back(asker_.connectToExecInfo());
    connections.back()->sendMessage(
        RegistryClient::kExecInfo, {Value(file)}, [&answered](const Array&) { ++answered; },
        nullptr);
  }
  for (const std::string& file : files) {
    root_.awaitLog("requestExecutableInfo request for path '" + file + "'");
  }
  // The registry, the log and the main thread still work.
  const auto registry = asker_.connect();
  EXPECT_EQ(RegistryClient::ask(*registry, RegistryClient::kLookUp,
                                {asker_.passkey(), Value("meanwhile")}),
            Array{Value()});
  root_.awaitLog("Received listenerendpoint request for 'meanwhile'");
  UserInterfaceClient interface(root_);
  EXPECT_TRUE(interface.ask("services"));
  EXPECT_EQ(answered, 0);
  for (const auto& connection : connections) connection->invalidate();
  for (const std::string& file : files) awaitClosedInDaemon(file);
}

// There are more callers than the service has threads, and none of them leaves.
TEST_F(DaemonExecInfo, TheDaemonEndsWhileEndlessFilesAreHashed) {
  const std::string endless = sparseFile("endless", kEndless);
  std::list<ChildProgram> callers = askFor(endless, LinuxXPC::kThreadsPerListener + 1);
  root_.endDaemonAndAwaitNext();
  for (ChildProgram& caller : callers) {
    const ExitStatus status = caller.waitForExit();
    EXPECT_EQ(status.kind, ExitStatus::Kind::kExited);
    // The hash may be unknown, or the answer too late for a daemon that has ended.
    // Then the caller looks for a daemon: it finds none, or the next one.
    if (status.number == kNotSigned) {
      EXPECT_THAT(caller.restOfOutput(), HasSubstr("  sha256   -\n"));
    } else if (status.number == 1) {
      EXPECT_THAT(caller.errors(), HasSubstr("ended the connection before it answered"));
    } else {
      EXPECT_EQ(status.number, 5);
      EXPECT_THAT(caller.errors(), HasSubstr("no service manager serves endpoints"));
    }
  }
}

// The service asks the settings server for the home of the last user.
TEST_F(DaemonExecInfo, TheDaemonEndsWhileASettingsServerIsAsked) {
  const std::string file = root_.folder().write("files/quarantined", "abc");
  if (!setAttribute(file, "user.com.apple.quarantine", "0081;5f3e9c02;Browser;0E2D-77A1")) {
    GTEST_SKIP() << "this file system takes no attributes";
  }
  root_.kill(DaemonRoot::kPrimary, SIGSTOP);
  std::list<ChildProgram> callers = askFor(file, LinuxXPC::kThreadsPerListener + 1);
  // The attribute is read just before the server is asked.
  root_.awaitLog("Failed to get attributes for file '" + file + "'");
  const Instant begin = root_.loop().now();
  root_.endDaemonAndAwaitNext();
  EXPECT_LT(root_.loop().now() - begin, 4s);  // The server's time-out is 5 s.
  for (ChildProgram& caller : callers) caller.waitForExit();
  root_.kill(DaemonRoot::kPrimary, SIGCONT);
}

// There are more of them than the service has threads, and each would take hours.
TEST_F(DaemonExecInfo, DeadCallersOfAnEndlessFileHarmNobody) {
  const std::string endless = sparseFile("endless", kEndless);
  const std::string small = root_.folder().write("files/small", "abc");
  const std::string expected = hexadecimalText(**sha256OfFile(small));
  std::list<ChildProgram> callers = askFor(endless, LinuxXPC::kThreadsPerListener + 1);
  EXPECT_TRUE(isOpenInDaemon(endless));
  EXPECT_EQ(hashOf(small), expected);  // while they live
  for (ChildProgram& caller : callers) {
    caller.signal(SIGKILL);
    caller.waitForExit();
  }
  EXPECT_EQ(hashOf(small), expected);
  awaitClosedInDaemon(endless);
  EXPECT_EQ(root_.starts(), 1U);
}

TEST_F(DaemonExecInfo, ANonRegularFileIsAnsweredAtOnce) {
  const std::string pipe = root_.folder().path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string link = root_.folder().path("link");
  ASSERT_EQ(::symlink(pipe.c_str(), link.c_str()), 0);
  const std::string circle = root_.folder().path("circle");
  ASSERT_EQ(::symlink(circle.c_str(), circle.c_str()), 0);
  const std::string empty = root_.folder().write("files/empty", "");
  for (const std::string& path :
       {pipe, link, circle, empty, root_.path(), std::string("/"), std::string("/dev/zero"),
        std::string("/dev/random"), std::string("/proc/kmsg"), std::string("/proc/self/mem"),
        root_.folder().path("missing"), std::string("relative"), std::string()}) {
    EXPECT_EQ(tell(path), kNothing) << path;
  }
  const std::string unreadable = root_.folder().write("files/unreadable", "abc");
  ASSERT_EQ(::chmod(unreadable.c_str(), 0), 0);
  // Root can read it anyway.
  EXPECT_EQ(hashOf(unreadable),
            ::geteuid() == 0 ? hexadecimalText(**sha256OfFile(unreadable)) : "");
  EXPECT_EQ(RegistryClient::ask(*service_, RegistryClient::kExecInfo, {Value(7)}), kNothing);
}

TEST_F(DaemonExecInfo, AFileThatChangesWhileItIsReadIsAnswered) {
  constexpr std::uintmax_t kSize = std::uintmax_t{1} << 27;
  const std::vector<std::pair<const char*, std::function<void(const std::string&)>>> changes{
      {"cut off", [](const std::string& path) { std::filesystem::resize_file(path, 1); }},
      {"longer", [](const std::string& path) { std::filesystem::resize_file(path, 2 * kSize); }},
      {"removed", [](const std::string& path) { std::filesystem::remove(path); }},
      {"a pipe", [](const std::string& path) {
         std::filesystem::remove(path);
         EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
       }}};
  const std::string whole = hexadecimalText(**sha256OfFile(sparseFile("whole", kSize)));
  const std::string longer = hexadecimalText(**sha256OfFile(sparseFile("double", 2 * kSize)));
  const std::string one = hexadecimalText(CC_SHA256(Data(1)));
  for (const auto& [name, change] : changes) {
    SCOPED_TRACE(name);
    const std::string path = sparseFile(name, kSize);
    const auto answer = std::make_shared<std::promise<Array>>();
    auto answered = answer->get_future();
    service_->sendMessage(
        RegistryClient::kExecInfo, {Value(path)},
        [answer](Array values) { answer->set_value(std::move(values)); }, nullptr);
    root_.awaitLog("requestExecutableInfo request for path '" + path + "'");
    change(path);
    ASSERT_EQ(answered.wait_for(100s), std::future_status::ready);
    // Its content before or after the change, or nothing.
    EXPECT_THAT(*answered.get().at(1).string(), testing::AnyOf("", whole, longer, one));
  }
}

TEST_F(DaemonExecInfo, OnlyASignedProgramHasAnIdentifier) {
  const std::string program = root_.folder().path("opt/agent");
  EXPECT_EQ(tell(program), (Array{Value("valid: com.vantor.test"),
                                  Value(hexadecimalText(**sha256OfFile(program))), Value("")}));
  EXPECT_EQ(tell("/bin/true")->at(0), Value(""));
  root_.awaitLog("<Error> [ORBExecInfoHandler.cpp");
}

TEST_F(DaemonExecInfo, TheLastUsersQuarantineRecordIsFound) {
  const std::string file = root_.folder().write("files/quarantined", "abc");
  if (!setAttribute(file, "user.com.apple.quarantine", "0081;5f3e9c02;Browser;0E2D-77A1")) {
    GTEST_SKIP() << "this file system takes no attributes";
  }
  const std::string home = root_.folder().path("home/last");
  root_.folder().write("home/last/Library/Preferences/keep", "");
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open((home + "/Library/Preferences/"
                                 "com.apple.LaunchServices.QuarantineEventsV2")
                             .c_str(),
                         &database),
            SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database,
                         "CREATE TABLE LSQuarantineEvent (LSQuarantineEventIdentifier TEXT, "
                         "LSQuarantineOriginURLString TEXT);"
                         "INSERT INTO LSQuarantineEvent VALUES "
                         "('other', 'https://example.com/other'), "
                         "('0E2D-77A1', 'https://example.com/quarantined');",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(database);
  constexpr char kSetting[] = "ORBCmxLastLoggedInUser";
  const auto set = root_.host().control({"settings", "set", "cmx", kSetting, home});
  ASSERT_EQ(set.status.number, 0) << set.errors;
  EXPECT_EQ(tell(file)->at(2), Value("https://example.com/quarantined"));
  const auto unset = root_.host().control({"settings", "unset", "cmx", kSetting});
  ASSERT_EQ(unset.status.number, 0) << unset.errors;
  EXPECT_EQ(tell(file)->at(2), Value(""));
  root_.awaitLog("Couldn't locate quarantine database");
}

void DaemonExecInfo::download(std::vector<std::string> tool, const std::string& target) {
  if (!setAttribute(root_.folder().write("probe", ""), "user.test", "")) {
    GTEST_SKIP() << "this file system takes no attributes";
  }
  root_.folder().write("served/file", "abc");
  ChildProgram server({"/usr/bin/python3", "-u", "-m", "http.server", "0", "--bind", "127.0.0.1",
                       "--directory", root_.folder().path("served")},
                      {});
  const std::string line = server.nextLine();
  const std::size_t start = line.find("http://");
  ASSERT_NE(start, line.npos) << line;
  const std::string url = line.substr(start, line.find(')', start) - start) + "file";
  tool.push_back(url);
  ChildProgram client(tool, {});
  ASSERT_EQ(client.waitForExit(), (ExitStatus{ExitStatus::Kind::kExited, 0})) << client.errors();
  EXPECT_EQ(tell(target)->at(2), Value(url));
  const auto told = root_.host().control({"execinfo", target});
  EXPECT_EQ(told.status.number, kNotSigned) << told.errors;
  EXPECT_THAT(told.output, HasSubstr("source   " + url + "\n"));
}

TEST_F(DaemonExecInfo, ACurlDownloadHasItsSource) {
  const std::string target = root_.folder().path("by-curl");
  download({"/usr/bin/curl", "--xattr", "--silent", "--show-error", "--output", target}, target);
}

TEST_F(DaemonExecInfo, AWgetDownloadHasItsSource) {
  const std::string target = root_.folder().path("by-wget");
  download({"/usr/bin/wget", "--xattr", "--quiet", "--output-document", target}, target);
}

}  // namespace
}  // namespace platform
