#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <linux/fsverity.h>
#include <linux/openat2.h>
#include <openssl/x509.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/timex.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/CmsAttributes.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/NamedConnections/AccountNumbers.h"
#include "Platform/Linux/Processes/ControlGroup.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/SystemFacts/LibraryPath.h"
#include "Tools/servicemanagerctl/DoctorProbes.h"

using namespace platform;

namespace {

bool isThere(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::string bundleOf(const std::string& root) {
  return libraryPath(
      root, root == "/" ? "ServiceManager.bundle" : "ServiceManager/ServiceManager.bundle");
}

// The control group of the job host.
std::expected<std::string, std::string> groupOfHost(ProcessId host) {
  const auto hierarchy = ControlGroupHierarchy::find();
  if (!hierarchy) return std::unexpected(describe(hierarchy.error()));
  const std::string folder =
      hierarchy->folderOf(contentOfKernelFile(fmt::format("/proc/{}/cgroup", host)));
  if (folder.empty()) return std::unexpected("its own control group is not visible here");
  return folder;
}

// The host makes the group of all jobs below its own when it starts.
std::expected<void, std::string> haveJobsGroups(ProcessId host) {
  const auto folder = groupOfHost(host);
  if (!folder) return std::unexpected(folder.error());
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(*folder, error)) {
    if (entry.path().filename().string().starts_with("vantor-")) return {};
  }
  if (error) return std::unexpected(fmt::format("{}: {}", *folder, error.message()));
  return std::unexpected(fmt::format("there are none in {}", *folder));
}

bool hasOpenat2() {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  const UniqueFd opened(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how)));
  return static_cast<bool>(opened);
}

bool hasPidfd() {
  const UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  return static_cast<bool>(process);
}

KernelFact::Verity verityOf(const std::string& program) {
  const UniqueFd file(::open(program.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return KernelFact::Verity::kUnknown;
  alignas(fsverity_digest) std::uint8_t digest[sizeof(fsverity_digest) + 64] = {};
  reinterpret_cast<fsverity_digest*>(digest)->digest_size = 64;
  if (::ioctl(file.get(), FS_IOC_MEASURE_VERITY, digest) == 0 || errno == ENODATA)
    return KernelFact::Verity::kAvailable;
  if (errno == ENOTTY || errno == EOPNOTSUPP) return KernelFact::Verity::kNotAvailable;
  return KernelFact::Verity::kUnknown;
}

std::optional<WallTime> validityTime(const ASN1_TIME* time) {
  const auto seconds = timeOfAsn1(time);
  return seconds ? std::optional<WallTime>(*seconds) : std::nullopt;
}

// The path itself or the nearest folder above it that exists: what is missing will be made there.
std::string nearestFolder(std::string path) {
  while (path.size() > 1 && !isThere(path) && errno == ENOENT) {
    const std::size_t slash = path.rfind('/');
    path.resize(std::max<std::size_t>(slash, 1));
  }
  return path;
}

class SocketFiles {
 public:
  explicit SocketFiles(const PlatformConfiguration& configuration)
      : places_(configuration), run_(pathBelowRoot(configuration.root, "run/vantor")) {}

  Fact<std::vector<SocketFile>> all() {
    struct stat status{};
    if (::lstat(run_.c_str(), &status) != 0) return notKnown(run_);
    owner_ = status.st_uid;
    // Whoever may write to a folder can put another socket into the place of one.
    for (const char* name : {"", "/connections", "/mach"}) addFolder(run_ + name);
    add(run_ + "/launchd", PeerAudience());
    addSocketsIn("connections", [&](std::string_view name) { return places_.connection(name); });
    addSocketsIn("mach", [&](std::string_view name) { return places_.machService(name); });
    return std::move(files_);
  }

 private:
  void addFolder(const std::string& path) {
    constexpr std::uint32_t kFolderMode = 0755;
    struct stat status{};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
    files_.push_back({path,
                      true,
                      status.st_mode & 07777u,
                      status.st_uid,
                      status.st_gid,
                      kFolderMode,
                      {owner_},
                      {}});
  }

  void add(const std::string& path, const PeerAudience& clients) {
    struct stat status{};
    if (::lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return;
    files_.push_back({path,
                      false,
                      status.st_mode & 07777u,
                      status.st_uid,
                      status.st_gid,
                      clients.socketMode(),
                      {0, owner_},
                      clients.group});
  }

  template <typename PlaceOf>
  void addSocketsIn(const std::string& folder, const PlaceOf& placeOf) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(run_ + "/" + folder, error)) {
      const std::string name = entry.path().filename();
      const ListenerPlace place = placeOf(name);
      // Some names have another file, and these files don't tell who may connect.
      if (place.path == entry.path().string()) add(place.path, place.clients);
    }
  }

  const ListenerPlaces places_;
  const std::string run_;
  std::uint32_t owner_ = 0;
  std::vector<SocketFile> files_;
};

}  // namespace

std::unexpected<NotKnown> notKnown(const std::string& what) {
  const bool isDenied = errno == EACCES || errno == EPERM;
  return std::unexpected(
      NotKnown{isDenied ? NotKnown::Why::kNotPermitted : NotKnown::Why::kFailed,
               fmt::format("{}: {}", what, std::generic_category().message(errno))});
}

std::string daemonProgramOf(const std::string& root) {
  return bundleOf(root) + "/Contents/Linux/servicemanagerd";
}

std::string catalogueOf(const std::string& root) {
  return bundleOf(root) + "/Contents/Resources/Service.plist";
}

Fact<std::vector<InstalledFile>> probeInstallation(const std::string& root,
                                                   const std::string& hostProgram) {
  std::vector<InstalledFile> files{{hostProgram, "the job host, which starts everything else"},
                                   {hostProgram.substr(0, hostProgram.rfind('/') + 1) + "jobstart",
                                    "the program that starts a job in a unit of systemd"},
                                   {daemonProgramOf(root), "the service manager"},
                                   {catalogueOf(root), "the catalogue, which a product brings"}};
  for (InstalledFile& file : files) file.exists = isThere(file.path);
  return files;
}

Fact<GroupFact> probeGroup(const std::string& name) {
  const auto number = groupNumber(name);
  if (!number) return GroupFact{};
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
  groups.resize(static_cast<std::size_t>(
      std::max(::getgroups(static_cast<int>(groups.size()), groups.data()), 0)));
  groups.push_back(::getegid());
  return GroupFact{true, std::ranges::find(groups, *number) != groups.end()};
}

Fact<std::vector<SocketFile>> probeSockets(const PlatformConfiguration& configuration) {
  return SocketFiles(configuration).all();
}

Fact<LimitsFact> probeLimits(const std::optional<ProcessId>& host) {
  if (!host) return std::unexpected(NotKnown{NotKnown::Why::kFailed, "it does not answer"});
  const std::string path = fmt::format("/proc/{}/limits", *host);
  std::ifstream limits(path);
  if (!limits) return notKnown(path);
  constexpr std::string_view kName = "Max open files";
  for (std::string line; std::getline(limits, line);) {
    if (!line.starts_with(kName)) continue;
    const std::uint64_t soft = std::strtoull(line.c_str() + kName.size(), nullptr, 10);
    return LimitsFact{soft, haveJobsGroups(*host)};
  }
  return notKnown(path);
}

Fact<KernelFact> probeKernel(const std::string& root, const std::optional<ProcessId>& host) {
  utsname name{};
  ::uname(&name);
  KernelFact kernel{.release = name.release,
                    .hasPidfd = hasPidfd(),
                    .hasOpenat2 = hasOpenat2(),
                    .verity = verityOf(daemonProgramOf(root))};
  // Only a group below the root of the hierarchy has the file.
  if (const auto group = groupOfHost(host.value_or(::getpid())))
    if (isThere(*group + "/cgroup.type")) kernel.hasGroupKill = isThere(*group + "/cgroup.kill");
  return kernel;
}

Fact<AnchorsFact> probeAnchors(const std::string& root, WallTime now) {
  for (const char* name : {"etc/vantor/anchors", "etc/vantor/revoked"}) {
    const std::string folder = pathBelowRoot(root, name);
    if (::access(folder.c_str(), R_OK | X_OK) != 0 && errno == EACCES) return notKnown(folder);
  }
  const auto signatures = LinuxCodeSignatures::create(root, [now] { return now; });
  if (!signatures)
    return std::unexpected(NotKnown{NotKnown::Why::kFailed, describe(signatures.error())});
  const auto set = (*signatures)->anchors();
  AnchorsFact anchors;
  if (set->unread) anchors.unread = set->unread->reason;
  anchors.remarks = set->remarks;
  for (int i = 0; i < sk_X509_num(set->certificates.get()); ++i) {
    const X509* certificate = sk_X509_value(set->certificates.get(), i);
    anchors.anchors.push_back({subjectOf(certificate),
                               validityTime(X509_get0_notBefore(certificate)),
                               validityTime(X509_get0_notAfter(certificate))});
  }
  return anchors;
}

Fact<ClockFact> probeClock(const std::string& root, WallTime now) {
  timex state{};
  const int answer = ::adjtimex(&state);
  ClockFact clock{now, answer >= 0 && answer != TIME_ERROR && (state.status & STA_UNSYNC) == 0, {}};
  struct stat program{};
  if (::stat(daemonProgramOf(root).c_str(), &program) == 0)
    clock.newestProgram = WallTime(std::chrono::seconds(program.st_mtim.tv_sec));
  return clock;
}

Fact<DiskFact> probeDisk(const std::string& use, const std::string& path) {
  const std::string folder = nearestFolder(path);
  struct statvfs system{};
  if (::statvfs(folder.c_str(), &system) != 0) return notKnown(folder);
  return DiskFact{.use = use,
                  .path = folder,
                  .freeBytes = std::uint64_t{system.f_bavail} * system.f_frsize,
                  .totalBytes = std::uint64_t{system.f_blocks} * system.f_frsize,
                  .freeFiles = system.f_favail,
                  .totalFiles = system.f_files,
                  .isReadOnly = (system.f_flag & ST_RDONLY) != 0};
}
