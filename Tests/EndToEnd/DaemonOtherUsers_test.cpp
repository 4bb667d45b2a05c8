// A product whose configuration server belongs to another user ("NameOwners"), and which every user
// may use in part ("OpenListeners").

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// The other user, who owns the names, and a stranger, who has no rights at all.
constexpr char kOwner[] = "nobody";
constexpr uid_t kOwnerNumber = 65534;
constexpr char kStranger[] = "65533";
// An account without rights: a bus admits nobody without an account.
constexpr uid_t kAccount = 1;

std::string plistText(const std::string& text) { return "<string>" + text + "</string>"; }

std::string configuration() {
  std::string owners;
  const auto add = [&](const char* name) {
    owners += std::string("<key>") + name + "</key>" + plistText(kOwner);
  };
  add("com.vantor.service.configd.status");
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) add(domain.connectionName);
  return "<key>NameOwners</key><dict>" + owners + "</dict><key>OpenListeners</key><array>" +
         plistText("com.vantor.common.servicemanager") + plistText(DaemonRoot::kBus) +
         plistText("ServiceManagerHealthInfo") + plistText(UserInterfaceClient::kInstallerServer) +
         plistText(UserInterfaceClient::kAuthServer) + "</array>";
}

class DaemonOtherUsers : public DaemonFixture {
 protected:
  DaemonOtherUsers() : DaemonFixture(::geteuid() == 0 ? configuration() : std::string()) {}

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start programs as other users";
    namespace fs = std::filesystem;
    fs::permissions(root_.path(), fs::perms(0755));
    fs::create_directories(root_.folder().path("var/lib/vantor"));
    giveToOwner("var/lib/vantor", 0700);
    giveToOwner("log/system.log", 0640);
    root_.folder().write("etc/vantor/notification-bus.d/owner.conf",
                         std::string("<busconfig><policy user=\"") + kOwner +
                             "\"><allow send_type=\"signal\" "
                             "send_interface=\"com.vantor.DistributedNotification\"/>"
                             "</policy></busconfig>");
    bool isBack = false;
    const auto returned = root_.center().observeReturn([&] {
      isBack = true;
      root_.changed();
    });
    root_.kill(DaemonRoot::kBus, SIGKILL);
    root_.await("the bus with that policy", [&] { return isBack; });
  }

  void giveToOwner(const std::string& name, mode_t mode) {
    const std::string path = root_.folder().path(name);
    ASSERT_EQ(::chown(path.c_str(), kOwnerNumber, kOwnerNumber), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }

  // The configuration server runs as the owner of its names.
  void startAsOwner() {
    Dictionary entries = *DaemonRoot::catalogue(1)["Services"].dictionary();
    Dictionary primary = *entries[DaemonRoot::kPrimary].dictionary();
    Dictionary job = *primary["JobSpec"].dictionary();
    job.set("UserName", kOwner);
    primary.set("JobSpec", std::move(job));
    entries.set(DaemonRoot::kPrimary, std::move(primary));
    Dictionary catalogue = DaemonRoot::catalogue(1);
    catalogue.set("Services", std::move(entries));
    start(1, catalogue);
  }

  JobHostRoot::Finished controlAs(const std::string& user, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"/usr/bin/setpriv", "--reuid=" + user, "--regid=" + user,
                                         "--clear-groups", root_.host().controlProgram()});
    ChildProgram program(arguments, {});
    std::string output;
    while (const auto line = program.nextLineIfAny()) output += *line + "\n";
    const ExitStatus status = program.waitForExit();
    return {status, output, program.errors()};
  }
};

TEST_F(DaemonOtherUsers, AnOwnerServesItsNames) {
  startAsOwner();
  struct stat status{};
  const std::string socket =
      root_.folder().path("run/vantor/users/nobody/com.vantor.CommonPreferences");
  ASSERT_EQ(::stat(socket.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kOwnerNumber);
  EXPECT_FALSE(std::filesystem::exists(
      root_.folder().path("run/vantor/connections/com.vantor.CommonPreferences")));
  const auto set = root_.host().control({"settings", "set", "common", "Key", "value"});
  EXPECT_EQ(set.status, ExitStatus{}) << set.errors;
  const auto get = root_.host().control({"settings", "get", "common", "Key"});
  EXPECT_THAT(get.output, HasSubstr("value")) << get.errors;
  // Its next process has its names again.
  expectKilledServiceIsReported(DaemonRoot::kPrimary);
  const auto ticks =
      root_.loop().startTimer(50ms, RunLoop::Repeat::kEvery, [this] { root_.changed(); });
  root_.await("the settings", [&] {
    return root_.host().control({"settings", "get", "common", "Key"}).status == ExitStatus{};
  });
}

// As if the folder's permissions had been lost: the client asks the kernel, too.
TEST_F(DaemonOtherUsers, AnotherUserCantServeAnOwnersName) {
  const std::string folder = root_.folder().path("run/vantor/users/nobody");
  ASSERT_EQ(::chmod(folder.c_str(), 0777), 0);
  const std::string name = folder + "/com.vantor.CommonPreferences";
  ChildProgram impostor({"/usr/bin/setpriv", "--reuid=65533", "--regid=65534", "--clear-groups",
                         "/usr/bin/python3", "-c",
                         "import os, socket, sys\n"
                         "s = socket.socket(socket.AF_UNIX)\n"
                         "s.bind(sys.argv[1]); os.chmod(sys.argv[1], 0o666); s.listen(5)\n"
                         "print('listening', flush=True); sys.stdin.read()",
                         name},
                        {});
  ASSERT_EQ(impostor.nextLine(), "listening");
  const auto get = root_.host().control({"settings", "get", "common", "Key"});
  EXPECT_NE(get.status, ExitStatus{});
  root_.awaitLog("belongs to user 65533, whom this program does not trust");
}

TEST_F(DaemonOtherUsers, EverybodyReachesOnlyOpenListeners) {
  start(1);
  const auto lookUp = controlAs(
      kStranger, {"endpoints", "lookup", "com.vantor.xpc.name.execinfohandler", "--json"});
  EXPECT_EQ(lookUp.status, ExitStatus{}) << lookUp.errors;
  EXPECT_THAT(lookUp.output, HasSubstr("\"registered\": true"));
  const auto look = controlAs(kStranger, {"execinfo", "/usr/bin/env"});
  EXPECT_THAT(look.output, HasSubstr("sha256   ")) << look.errors;
  constexpr int kNotPermitted = 4;
  for (const std::vector<std::string>& command : {std::vector<std::string>{"list"},
                                                  {"stop", DaemonRoot::label(0)},
                                                  {"installer", "begin", DaemonRoot::label(0)},
                                                  {"settings", "list", "common"},
                                                  {"jobs", "list"}}) {
    const auto refused = controlAs(kStranger, command);
    EXPECT_EQ(refused.status.number, kNotPermitted) << command[0] << refused.errors;
  }
  // The job host says so, and their sockets are closed.
  for (const char* never :
       {UserInterfaceClient::kInstallerServer, UserInterfaceClient::kAuthServer}) {
    root_.awaitLog(std::string(never) + " is never open to everybody");
    struct stat status{};
    const std::string socket = root_.folder().path(std::string("run/vantor/connections/") + never);
    ASSERT_EQ(::stat(socket.c_str(), &status), 0) << never;
    EXPECT_EQ(status.st_mode & 07777, 0660U) << never;
  }
  expectKilledServiceIsReported(DaemonRoot::label(0));
}

TEST_F(DaemonOtherUsers, EverybodyHearsAnOpenBusAndPostsNothing) {
  start(1);
  const std::string address = "unix:path=" + root_.path() + "/run/vantor/mach/" + DaemonRoot::kBus;
  std::size_t heard = 0;
  const auto own = root_.center().addObserver("com.vantor.test.own", std::nullopt,
                                              [&](const DistributedNotification&) {
                                                ++heard;
                                                root_.changed();
                                              });
  FakeLogSink sink;
  SystemLog log{sink, "stranger"};
  std::unique_ptr<DistributedNotificationCenter> center;
  std::unique_ptr<DistributedNotificationCenter::Observation> observation;
  std::size_t heardByStranger = 0;
  {
    const AsOrdinaryUser stranger({}, kAccount);
    center = makeBusNotificationCenter(root_.loop(), address, log);
    observation = center->addObserver("com.vantor.test.own", std::nullopt,
                                      [&](const DistributedNotification&) {
                                        ++heardByStranger;
                                        root_.changed();
                                      });
  }
  center->postNotificationName("com.vantor.test.own", std::nullopt, {},
                               NSNotificationPosting::kPostToAllSessions);
  root_.center().postNotificationName("com.vantor.test.own", std::nullopt, {},
                                      NSNotificationPosting::kPostToAllSessions);
  root_.await("the notice of root", [&] { return heard > 0 && heardByStranger > 0; });
  EXPECT_EQ(heard, 1u);
  EXPECT_EQ(heardByStranger, 1u);
}

}  // namespace
}  // namespace platform
