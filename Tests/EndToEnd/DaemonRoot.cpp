#include "Tests/EndToEnd/DaemonRoot.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/JobBackend.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

constexpr char kBundle[] = "Library/ServiceManager/ServiceManager.bundle";
constexpr char kCatalogue[] =
    "Library/ServiceManager/ServiceManager.bundle/Contents/Resources/Service.plist";
constexpr char kProduct[] = "kKLXInstallTypeServerManagedID";
constexpr char kProductFile[] =
    "<plist version=\"1.0\"><dict><key>GUID</key>"
    "<string>5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952</string></dict></plist>";

SigningOptions signing(const char* identifier) {
  // Within the signer's validity, and in the past of every clock.
  return {identifier, std::chrono::sys_days{std::chrono::January / 1 / 2025}};
}

std::string busAddress(const std::string& root) {
  return "unix:path=" + root + "/run/vantor/mach/" + DaemonRoot::kBus;
}

// The part of our environment that a job gets; the rest is not inherited.
Dictionary sanitizerOptions() {
  Dictionary options;
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) options.set(name, value);
  }
  return options;
}

// Without other rights only root can give sockets to the group.
std::string groupEntry() {
  if (::geteuid() != 0) return {};
  return std::string("<key>Group</key><string>") + DaemonRoot::kGroup + "</string>";
}

PlatformConfiguration configurationOf(const std::string& root) {
  PlatformConfiguration configuration = defaultPlatformConfiguration(root);
  configuration.notificationBus = busAddress(root);
  return configuration;
}

}  // namespace

DaemonRoot::DaemonRoot(const std::string& configuration, const PrepareLog& prepareLog)
    : root_(groupEntry() + configuration),
      system_(configurationOf(root_.folder().path()), "/proc"),
      client_(transport_, *loop_, jobHostSocket(root_.folder().path())) {
  ::umask(022);  // A file that a test writes must not be writable for everybody.
  folder().write("etc/vantor/platform.plist",
                 "<plist version=\"1.0\"><dict><key>LogSink</key><string>file</string>"
                 "<key>LogLevel</key><integer>7</integer><key>NotificationBus</key><string>" +
                     busAddress(path()) + "</string>" + groupEntry() + configuration +
                     jobBackendEntry(configuration) + "</dict></plist>");
  folder().write("etc/vantor/anchors/authority.pem",
                 pemOfCertificate(CodeSigningBed::authority().chain.front().get()).value());
  folder().write("etc/vantor/notification-bus.conf", contentOfFile(NOTIFICATION_BUS_CONFIGURATION));
  if (::geteuid() != 0) {
    folder().write("etc/vantor/notification-bus.d/owner.conf",
                   "<busconfig><policy user=\"" + std::to_string(::geteuid()) +
                       "\"><allow send_type=\"signal\" "
                       "send_interface=\"com.vantor.DistributedNotification\"/>"
                       "</policy></busconfig>");
  }
  setProductFile(kProductFile);
  for (const auto& [from, to] : {std::pair{JOB_PROGRAM, "agent"}, {CONFIGD, "configd"}}) {
    std::filesystem::copy_file(from, folder().path("opt/") + to);
    sign(folder().path("opt/") + to);
  }
  // Programs of the demo look for it beside them, and extensions in opt/demo.
  std::filesystem::copy_file(KIT_LIBRARY, folder().path("opt/libvantor-kit.so.1"));
  std::filesystem::create_directory_symlink(".", folder().path("opt/demo"));
  folder().write(std::string(kBundle) + "/Contents/Info.plist",
                 "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
                 "<string>com.vantor.servicemanager</string></dict></plist>");
  folder().write(kCatalogue, "");
  std::filesystem::create_directories(folder().path(kBundle) + "/Contents/Linux");
  std::filesystem::copy_file(SERVICEMANAGERD, daemonProgram());
  sign(daemonProgram());

  std::filesystem::create_directories(folder().path("log"));
  if (prepareLog) prepareLog(folder().path("log"));
  logFile_.reset(
      ::open(folder().path("log/system.log").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0640));
  EXPECT_TRUE(logFile_);
  logNotices_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  EXPECT_GE(
      ::inotify_add_watch(logNotices_.get(), folder().path("log/system.log").c_str(), IN_MODIFY),
      0);
  logWatch_ = std::move(*loop_->watchReadable(logNotices_.get(), Urgency::kOrdinary, [this] {
    std::array<char, 4096> events;
    while (::read(logNotices_.get(), events.data(), events.size()) > 0) {
    }
    changed();
  }));

  startBus();
  center_ = makeBusNotificationCenter(*loop_, busAddress(path()), systemLog_);
  observations_.push_back(
      center_->addObserver(kDidStart, std::nullopt, [this](const DistributedNotification&) {
        ++starts_;
        changed();
      }));
  observations_.push_back(center_->addObserver(kDidStartError, std::nullopt,
                                               [this](const DistributedNotification& notification) {
                                                 startErrors_.push_back(notification.userInfo);
                                                 changed();
                                               }));
}

DaemonRoot::~DaemonRoot() {
  // Before its services are removed, since it would wait for them.
  if (!jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kDaemon).isNil()) {
    remove(kDaemon);
  }
  const std::string ended = std::string("job \"") + kDaemon + "\": process ";
  readLog();
  for (std::size_t at = 0; (at = log_.find(ended, at)) != log_.npos; ++at) {
    const std::string line = log_.substr(at, log_.find('\n', at) - at);
    EXPECT_FALSE(line.find("(signal ") != line.npos && !line.ends_with("(signal 9)")) << line;
  }
  EXPECT_EQ(contentOfFile(folder().path("daemon.errors")), "");
  if (testing::Test::HasFailure()) std::fputs(logTail().c_str(), stderr);
}

Dictionary DaemonRoot::service(const std::string& label, const std::string& program) {
  Dictionary job{{"Program", program},
                 {"ProgramArguments", Array{label}},
                 {"ThrottleInterval", 0},
                 {"ExitTimeOut", 5}};
  if (const Dictionary options = sanitizerOptions(); !options.empty()) {
    job.set("EnvironmentVariables", options);
  }
  return {{"Products", Array{kProduct}}, {"JobSpec", std::move(job)}};
}

Dictionary DaemonRoot::catalogue(int services) {
  Dictionary entries{{kPrimary, service(kPrimary, "configd")}};
  for (int i = 0; i < services; ++i) entries.set(label(i), service(label(i)));
  return {{"Primary", kPrimary},
          {"ProgramPath", ""},
          {"ProductInfo", "product.plist"},
          {"ProductInfoKey", "GUID"},
          {"Services", std::move(entries)}};
}

void DaemonRoot::setCatalogue(const Dictionary& catalogue) {
  Dictionary placed = catalogue;
  if (placed["ProgramPath"] == Value("")) placed.set("ProgramPath", folder().path("opt"));
  const Data xml = writePropertyList(Value(std::move(placed)), PropertyListFormat::kXml).value();
  setCatalogueFile(std::string(xml.begin(), xml.end()));
}

void DaemonRoot::setCatalogueFile(const std::optional<std::string>& content) {
  std::filesystem::remove(folder().path(kCatalogue));
  if (content) folder().write(kCatalogue, *content);
  const auto done = signBundle(folder().path(kBundle), CodeSigningBed::signer(),
                               signing("com.vantor.servicemanager"));
  EXPECT_TRUE(done) << describe(done.error());
}

void DaemonRoot::setProductFile(const std::optional<std::string>& content) {
  std::filesystem::remove(folder().path("opt/product.plist"));
  if (content) folder().write("opt/product.plist", *content);
}

void DaemonRoot::sign(const std::string& program) {
  const auto done = signProgram(program, CodeSigningBed::signer(), signing("com.vantor.test"));
  EXPECT_TRUE(done) << describe(done.error());
}

std::string DaemonRoot::daemonProgram() const {
  return folder().path(kBundle) + "/Contents/Linux/servicemanagerd";
}

void DaemonRoot::startDaemon(const std::optional<std::string>& program) {
  Dictionary job{{"Label", kDaemon},  {"Program", program.value_or(daemonProgram())},
                 {"KeepAlive", true}, {"ThrottleInterval", 0},
                 {"ExitTimeOut", 20}, {"StandardErrorPath", folder().path("daemon.errors")}};
  if (const Dictionary options = sanitizerOptions(); !options.empty()) {
    job.set("EnvironmentVariables", options);
  }
  expectStart();
  const auto submitted = jobs_.SMJobSubmit(kSMDomainSystemLaunchd, Value(std::move(job)), nullptr);
  EXPECT_TRUE(submitted) << submitted.error().localizedDescription;
}

void DaemonRoot::startBus() {
  const auto bus = jobs_.SMJobSubmit(
      kSMDomainSystemLaunchd,
      Dictionary{{"Label", kBus},
                 {"ProgramArguments",
                  Array{"/usr/bin/dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                        "--config-file=" + folder().path("etc/vantor/notification-bus.conf")}},
                 {"MachServices", Dictionary{{kBus, true}}},
                 {"KeepAlive", true},
                 {"ThrottleInterval", 0}},
      nullptr);
  EXPECT_TRUE(bus) << bus.error().localizedDescription;
}

void DaemonRoot::kill(std::string_view label, int signal) {
  const ProcessId process = processOf(label);
  ASSERT_GT(process, 0) << label;  // Process 0 would mean all processes beside this test.
  ASSERT_EQ(::kill(process, signal), 0) << label;
}

void DaemonRoot::killDaemon() {
  expectStart();
  kill(kDaemon, SIGKILL);
}

void DaemonRoot::endDaemonAndAwaitNext() {
  expectStart();
  const ProcessId daemon = processOf(kDaemon);
  ASSERT_NO_FATAL_FAILURE(kill(kDaemon, SIGTERM));
  awaitStart();
  const Value job = jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kDaemon);
  EXPECT_EQ(job["LastExitStatus"], Value(0));
  EXPECT_NE(processOf(kDaemon), daemon);
}

void DaemonRoot::awaitStart() {
  await("the daemon's start", [&] { return starts_ >= awaitedStarts_; });
}

void DaemonRoot::remove(std::string_view label) {
  const auto removed = jobs_.SMJobRemove(kSMDomainSystemLaunchd, label, nullptr, true);
  EXPECT_TRUE(removed) << removed.error().localizedDescription;
}

ProcessId DaemonRoot::processOf(std::string_view label) {
  return static_cast<ProcessId>(
      jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, label)["PID"].integer().value_or(0));
}

std::vector<std::pair<std::string, ProcessId>> DaemonRoot::processes() const {
  std::vector<std::pair<std::string, ProcessId>> found;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != name.npos) continue;
    const auto program = std::filesystem::read_symlink(entry.path() / "exe", error);
    if (error || program.parent_path() != folder().path("opt")) continue;
    std::string first;
    do {  // Its arguments appear a moment after its program.
      first = contentOfFile(entry.path() / "cmdline");
    } while (first.empty() && std::filesystem::exists(entry.path() / "fd/0", error));
    first.resize(std::min(first.size(), first.find('\0')));
    found.emplace_back(std::move(first), std::stoi(name));
  }
  std::ranges::sort(found);
  return found;
}

void DaemonRoot::await(std::string_view what, const std::function<bool()>& condition) {
  if (condition()) return;
  awaited_ = &condition;
  bool isLate = false;
  const auto deadline = loop_->startTimer(60s, RunLoop::Repeat::kOnce, [&] {
    isLate = true;
    loop_->stop();
  });
  loop_->run();
  awaited_ = nullptr;
  EXPECT_FALSE(isLate) << "waited in vain for " << what;
}

void DaemonRoot::changed() {
  if (awaited_ && (*awaited_)()) loop_->stop();
}

void DaemonRoot::awaitLog(std::string_view text, std::size_t count) {
  await(text, [&] { return logCount(text) >= count; });
}

std::size_t DaemonRoot::logCount(std::string_view text) {
  readLog();
  std::size_t count = 0;
  for (std::size_t at = 0; (at = log_.find(text, at)) != log_.npos; ++at) ++count;
  return count;
}

bool DaemonRoot::logHasBehind(std::string_view mark, std::string_view text) {
  readLog();
  const std::size_t last = log_.rfind(mark);
  return last != log_.npos && log_.find(text, last) != log_.npos;
}

std::string DaemonRoot::logTail() {
  constexpr std::size_t kTail = 8000;
  readLog();
  return log_.substr(log_.size() - std::min(log_.size(), kTail));
}

void DaemonRoot::readLog() {
  std::array<char, 65536> chunk;
  for (ssize_t size; (size = ::read(logFile_.get(), chunk.data(), chunk.size())) > 0;) {
    log_.append(chunk.data(), static_cast<std::size_t>(size));
  }
}

}  // namespace platform
