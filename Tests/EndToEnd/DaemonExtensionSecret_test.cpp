// The daemon's secret is in no file, log, argument list or core dump, and other users don't get it.

#include <cerrno>
#include <csignal>
#include <functional>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Digests/Digest.h"
#include "Platform/Linux/KernelExtensions/ControlFolder.h"
#include "Platform/Linux/KernelExtensions/ControlMessages.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonExtensions_fixture.h"

namespace platform {
namespace {

constexpr uid_t kNobody = 65534;

// The regular files, without files that appear during the search.
std::vector<std::filesystem::path> filesBelow(const std::string& folder) {
  using Entries = std::filesystem::recursive_directory_iterator;
  std::vector<std::filesystem::path> files;
  std::error_code isGone;
  do {  // Starts again if a folder has vanished, which ends the iteration.
    files.clear();
    for (Entries entry(folder, isGone), end; !isGone && entry != end; entry.increment(isGone)) {
      std::error_code ignored;
      if (entry->is_regular_file(ignored) && !entry->is_symlink(ignored)) {
        files.push_back(entry->path());
      }
    }
  } while (isGone);
  return files;
}

// The part of the base64 text that depends on these bytes alone, if `before` others precede them.
std::string base64Within(const Data& bytes, std::size_t before) {
  Data padded(before, 0);
  padded.insert(padded.end(), bytes.begin(), bytes.end());
  std::string text(4 * ((padded.size() + 2) / 3) + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), padded.data(),
                  static_cast<int>(padded.size()));
  const std::size_t first = (before * 8 + 5) / 6;
  return text.substr(first, padded.size() * 8 / 6 - first);
}

std::vector<std::string> encodingsOf(const Data& bytes) {
  std::string capitals;
  std::string spaced;
  std::string listed;
  for (const std::uint8_t byte : bytes) {
    capitals += fmt::format("{:02X}", byte);
    spaced += fmt::format("{:02x} ", byte);
    listed += fmt::format("{}, ", byte);
  }
  spaced.pop_back();
  listed.resize(listed.size() - 2);
  return {std::string(bytes.begin(), bytes.end()),
          std::string(bytes.rbegin(), bytes.rend()),
          hexadecimalText(bytes),
          capitals,
          spaced,
          listed,
          base64Within(bytes, 0),
          base64Within(bytes, 1),
          base64Within(bytes, 2)};
}

// Calls `call` in a process of a user without rights; its result is the exit status.
int asNobody(const std::function<int()>& call) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0) {
      ::_exit(99);
    }
    ::_exit(call());
  }
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

class DaemonExtensionSecret : public DaemonExtensionsFixture {
 protected:
  void startWithBoth() {
    installExtension(root_, kNetwork);
    installExtension(root_, kOther);
    start();
    root_.awaitLog("has been told");
  }
  std::vector<ProcessId> holders() {
    return {root_.processOf(DaemonRoot::kDaemon), extension(kNetwork)};
  }
  std::string controls() const { return controlFolder(root_.path()); }
  std::string controlOf(const char* identifier) const { return controls() + "/" + identifier; }
  // The folders above the controls are open to everybody, as in an installation.
  void openFoldersAboveControls() {
    for (const char* folder : {"", "run", "run/vantor"}) {
      ASSERT_EQ(::chmod(root_.folder().path(folder).c_str(), 0755), 0);
    }
  }
};

// This daemon has used its secret in every place that writes something.
TEST_F(DaemonExtensionSecret, IsInNoFileNoLogAndNoArgumentList) {
  startWithBoth();
  const Data bytes = secret();
  ASSERT_EQ(bytes.size(), 8u);
  // It gets the secret again, and the daemon kills its extension.
  askFor("stopServices:", 0);
  askFor("startServices:", 0);
  root_.awaitLog("has been told", 2);
  killAndAwait(extension(kNetwork));
  EXPECT_FALSE(facts().isNil());
  const std::vector<std::string> encodings = encodingsOf(bytes);
  const auto expectAbsent = [&](const std::filesystem::path& path) {
    const std::string content = contentOfFile(path);
    for (const std::string& encoded : encodings) {
      EXPECT_EQ(content.find(encoded), content.npos) << path;
    }
  };
  const auto files = filesBelow(root_.path());
  EXPECT_GT(files.size(), 10u);
  for (const std::filesystem::path& file : files) expectAbsent(file);
  std::vector<ProcessId> processes{root_.processOf(DaemonRoot::kDaemon), extension(kOther),
                                   root_.host().hostProcess()};
  for (const auto& [label, process] : root_.processes()) processes.push_back(process);
  EXPECT_GE(processes.size(), 6u);
  for (const ProcessId process : processes) {
    ASSERT_GT(process, 0);
    const std::string folder = "/proc/" + std::to_string(process);
    EXPECT_NE(contentOfFile(folder + "/cmdline"), "");
    expectAbsent(folder + "/cmdline");
    expectAbsent(folder + "/environ");
  }
}

// Shows that the search would find the secret.
TEST(EncodingsOfASecret, AreAllFound) {
  const Data bytes{0xde, 0xad, 0xbe, 0xef, 1, 2, 3, 250};
  const auto encodings = encodingsOf(bytes);
  const auto has = [&](const std::string& text) {
    return std::ranges::any_of(
        encodings, [&](const std::string& part) { return text.find(part) != text.npos; });
  };
  EXPECT_TRUE(has("deadbeef010203fa") && has("<DEADBEEF010203FA>"));
  EXPECT_TRUE(has("de ad be ef 01 02 03 fa") && has("[222, 173, 190, 239, 1, 2, 3, 250]"));
  // base64 of the bytes alone, after one byte, after two, and between others.
  EXPECT_TRUE(has("3q2+7wECA/o=") && has("eN6tvu8BAgP6") && has("eHjerb7vAQID+g=="));
  EXPECT_TRUE(has("eHh43q2+7wECA/p4"));
  EXPECT_FALSE(has("3q2+7wECB/o=") || has("deadbeef010203fb"));
}

TEST_F(DaemonExtensionSecret, ACrashOfItsExtensionLeavesNoCoreDump) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_CORE, &limit), 0);
  if (limit.rlim_max == 0) GTEST_SKIP() << "nothing may leave a core dump here";
  startWithBoth();
  const ProcessId process = extension(kNetwork);
  ASSERT_GT(process, 0);
  // As if its job allowed core dumps.
  const rlimit allowed{limit.rlim_max, limit.rlim_max};
  ASSERT_EQ(::prlimit(process, RLIMIT_CORE, &allowed, nullptr), 0) << std::strerror(errno);
  // A sanitizer in the extension would catch SIGSEGV.
  ASSERT_EQ(::kill(process, SIGABRT), 0);
  root_.awaitLog("job \"kext.com.vantor.nke.wfk\": process");
  const Value job = root_.jobs().SMJobCopyDictionary(kSMDomainSystemLaunchd,
                                                     LinuxKernelExtensions::jobLabel(kNetwork));
  const auto status = job["LastExitStatus"].integer();
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(static_cast<int>(*status)));
  EXPECT_EQ(WTERMSIG(static_cast<int>(*status)), SIGABRT);
  EXPECT_FALSE(WCOREDUMP(static_cast<int>(*status)));
}

// An ordinary user runs the daemon, extensions and services, and the user's other processes try to
// read their memory.
TEST_F(DaemonExtensionSecret, TheUsersOtherProcessesCannotReadItsHolders) {
  if (::geteuid() == 0) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    return runTestAsNobody(std::string(test.test_suite_name()) + "." + test.name());
  }
  startWithBoth();
  const auto opens = [](ProcessId process, const char* file) {
    const std::string path = "/proc/" + std::to_string(process) + "/" + file;
    return static_cast<bool>(UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  };
  for (const ProcessId holder : holders()) {
    ASSERT_GT(holder, 0);
    for (const char* file : {"mem", "environ", "maps", "auxv"}) {
      EXPECT_FALSE(opens(holder, file)) << holder << " " << file;
    }
  }
  // Processes without the secret are readable.
  EXPECT_TRUE(opens(root_.processOf(DaemonRoot::label(2)), "environ"));
}

TEST_F(DaemonExtensionSecret, AnOrdinaryUserCannotReachTheControls) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  startWithBoth();
  openFoldersAboveControls();
  const std::string control = controlOf(kNetwork);
  const std::string memory = "/proc/" + std::to_string(extension(kNetwork)) + "/mem";
  const auto socket = [] { return UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)); };
  const std::vector<std::function<int()>> attempts{
      [&] { return ::open(controls().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); },
      [&] { return ::open(control.c_str(), O_PATH | O_CLOEXEC); },
      [&] { return ::open(memory.c_str(), O_RDONLY | O_CLOEXEC); },
      [&] { return ::unlink(control.c_str()); },
      [&] { return ::rename(control.c_str(), (control + "2").c_str()); },
      [&] { return ::rename(controls().c_str(), (controls() + "2").c_str()); },
      [&] { return ::mkdir((root_.folder().path("run/vantor/mine")).c_str(), 0777); },
      [&] { return ::symlink("/tmp", (root_.folder().path("run/vantor/mine")).c_str()); },
      [&] { return ::chmod(controls().c_str(), 0777); },
      [&] {
        const sockaddr_un address = addressOf(control);
        return ::connect(socket().get(), reinterpret_cast<const sockaddr*>(&address),
                         sizeof address);
      },
      [&] {
        const sockaddr_un address = addressOf(controlOf("mine"));
        return ::bind(socket().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
      }};
  for (std::size_t i = 0; i < attempts.size(); ++i) {
    EXPECT_EQ(asNobody([&] {
                return attempts[i]() >= 0 ? 1 : errno == EACCES || errno == EPERM ? 0 : 2;
              }),
              0)
        << i;
  }
  expectToHaveTheSecret();
}

// Even if the folder and the socket have been opened to everybody.
TEST_F(DaemonExtensionSecret, AControlIgnoresAnOrdinaryUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  startWithBoth();
  openFoldersAboveControls();
  ASSERT_EQ(::chmod(controls().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(controlOf(kNetwork).c_str(), 0666), 0);
  const auto asks = [&](ControlOperation operation, std::uint32_t option,
                        const std::string& bytes) {
    return asNobody([&] {
      const UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
      const sockaddr_un address = addressOf(controlOf(kNetwork));
      if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
          0) {
        return 2;
      }
      const ControlRequest request{static_cast<std::uint32_t>(operation), option};
      std::string packet(reinterpret_cast<const char*>(&request), sizeof request);
      packet += bytes;
      static_cast<void>(::send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL));
      char answer = 0;
      return ::recv(socket.get(), &answer, sizeof answer, 0) > 0 ? 1 : 0;
    });
  };
  const std::size_t told = root_.logCount("has been told");
  EXPECT_EQ(asks(ControlOperation::kGetOption, 3, ""), 0);
  EXPECT_EQ(asks(ControlOperation::kSetOption, 5, "another secret"), 0);
  EXPECT_EQ(asks(ControlOperation::kSetOption, 6, "a challenge"), 0);
  EXPECT_EQ(asks(ControlOperation::kPing, 0, ""), 0);
  EXPECT_EQ(root_.logCount("has been told"), told);
  expectToHaveTheSecret();
}

// An ordinary user's program at the place of a control, which waits there for the secret.
class Impostor {
 public:
  explicit Impostor(const std::string& path) {
    int ready[2];
    EXPECT_EQ(::pipe(ready), 0);
    process_ = ::fork();
    if (process_ == 0) ::_exit(lieInWait(path, ready[1]));
    ::close(ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
  }
  // The result of its first connection: 0 if nothing came but its end.
  int result() const {
    int status = 0;
    EXPECT_EQ(::waitpid(process_, &status, 0), process_);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
  }

 private:
  static int lieInWait(const std::string& path, int ready) {
    ::alarm(60);
    if (::setresgid(kNobody, kNobody, kNobody) != 0 ||
        ::setresuid(kNobody, kNobody, kNobody) != 0) {
      return 99;
    }
    const UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    const sockaddr_un address = addressOf(path);
    if (::unlink(path.c_str()) != 0 ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0777) != 0 || ::listen(socket.get(), 16) != 0 ||
        ::write(ready, "", 1) != 1) {
      return 97;
    }
    const UniqueFd visitor(::accept(socket.get(), nullptr, nullptr));
    char bytes[64];
    return ::recv(visitor.get(), bytes, sizeof bytes, 0) > 0 ? 1 : 0;
  }

  pid_t process_ = -1;
};

TEST_F(DaemonExtensionSecret, AnOrdinaryUserInTheExtensionsPlaceGetsNothing) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
  startWithBoth();
  const ProcessId first = extension(kNetwork);
  openFoldersAboveControls();
  ASSERT_EQ(::chmod(controls().c_str(), 0777), 0);
  const Impostor impostor(controlOf(kNetwork));
  ASSERT_EQ(::chmod(controls().c_str(), 0700), 0);  // Otherwise the extension would not use it.
  askFor("stopServices:", 0);
  EXPECT_TRUE(
      UserInterfaceClient(root_).ask("startServices:", {Value(Array{DaemonRoot::label(0)})}));
  EXPECT_EQ(impostor.result(), 0);
  // In the end the extension, which had become unreachable, is loaded again.
  root_.awaitLog("has been told", 2);
  root_.awaitLog("Unable to establish connection with the Generic kext");
  EXPECT_NE(extension(kNetwork), first);
  expectToHaveTheSecret();
}

}  // namespace
}  // namespace platform
