#include "Platform/Linux/Processes/ControlGroup.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <functional>
#include <string_view>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

constexpr int kMaximumDepth = 32;
// How often the processes of a group are listed again, because some were started meanwhile.
constexpr int kMaximumPasses = 8;
constexpr std::string_view kCpuTime = "usage_usec ";

Result<void> writeKernelFile(const std::string& path, std::string_view text) {
  const UniqueFd file(retryOnInterrupt([&] { return ::open(path.c_str(), O_WRONLY | O_CLOEXEC); }));
  if (file &&
      retryOnInterrupt([&] { return ::write(file.get(), text.data(), text.size()); }) >= 0) {
    return {};
  }
  return std::unexpected(systemError(path, errorCodeOf(errno)));
}

// Calls `each` with the folder and those below it, the deepest first.
void eachGroup(const std::string& folder, int depth,
               const std::function<void(const std::string& folder)>& each) {
  if (depth >= kMaximumDepth) return;
  struct stat status{};
  // The kernel counts the folders in a folder of this file system: most groups have none below.
  constexpr nlink_t kLinksOfLeaf = 2;
  if (::stat(folder.c_str(), &status) == 0 && status.st_nlink == kLinksOfLeaf) return each(folder);
  static_cast<void>(eachNameInFolder(folder, [&](std::string_view name) {
    const std::string path = fmt::format("{}/{}", folder, name);
    struct stat entry{};
    if (::lstat(path.c_str(), &entry) == 0 && S_ISDIR(entry.st_mode)) {
      eachGroup(path, depth + 1, each);
    }
    return true;
  }));
  each(folder);
}

bool holdsProcess(const std::string& folder, ProcessId process) {
  const std::string text = "\n" + contentOfKernelFile(folder + "/cgroup.procs");
  return text.find(fmt::format("\n{}\n", process)) != text.npos;
}

// Undoes the escapes of a field of mountinfo: a backslash and three octal digits.
std::string unescaped(std::string_view field) {
  std::string text;
  for (std::size_t i = 0; i < field.size(); ++i) {
    unsigned byte = 0;
    const char* const digits = field.data() + i + 1;
    const bool isEscape = field[i] == '\\' && i + 3 < field.size() &&
                          std::from_chars(digits, digits + 3, byte, 8).ptr == digits + 3;
    text += isEscape ? static_cast<char>(byte) : field[i];
    if (isEscape) i += 3;
  }
  return text;
}

// The number at the beginning of a text.
std::optional<std::uint64_t> numberIn(std::string_view text) {
  std::uint64_t number = 0;
  const auto error = std::from_chars(text.data(), text.data() + text.size(), number).ec;
  return error == std::errc() ? std::optional(number) : std::nullopt;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

}  // namespace

std::string contentOfKernelFile(const std::string& path) {
  const UniqueFd file(retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  std::string text;
  char bytes[4096];
  while (file) {
    const ssize_t count = retryOnInterrupt([&] { return ::read(file.get(), bytes, sizeof bytes); });
    if (count <= 0) break;
    text.append(bytes, static_cast<std::size_t>(count));
  }
  return text;
}

Result<UniqueFd> ControlGroup::open() const {
  const auto tryOpen = [&] {
    return UniqueFd(retryOnInterrupt(
        [&] { return ::open(folder_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }));
  };
  UniqueFd group = tryOpen();
  if (group) return group;
  if (errno == ENOENT && ::mkdir(folder_.c_str(), 0755) == 0) group = tryOpen();
  if (group) return group;
  return std::unexpected(systemError("the control group " + folder_, errorCodeOf(errno)));
}

bool ControlGroup::isPopulated() const {
  // Each end of a leader costs this, so it is one short read.
  const std::string path = folder_ + "/cgroup.events";
  const UniqueFd file(retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!file) return errno != ENOENT;
  char bytes[128];
  const ssize_t count = retryOnInterrupt([&] { return ::read(file.get(), bytes, sizeof bytes); });
  const std::string_view text(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
  return text.find("populated 0") == text.npos;
}

std::vector<ProcessId> ControlGroup::processes() const {
  std::vector<ProcessId> processes;
  eachGroup(folder_, 0, [&](const std::string& folder) {
    const std::string text = contentOfKernelFile(folder + "/cgroup.procs");
    for (const std::string_view line : split(text, '\n')) {
      ProcessId process = 0;
      std::from_chars(line.data(), line.data() + line.size(), process);
      // Processes of another pid namespace have the number 0.
      if (process > 0) processes.push_back(process);
    }
  });
  return processes;
}

Result<void> ControlGroup::kill() const {
  const auto killed = writeKernelFile(folder_ + "/cgroup.kill", "1");
  if (killed || killed.error().code != ErrorCode::kNotFound) return killed;
  struct stat status{};
  if (::stat(folder_.c_str(), &status) != 0 && errno == ENOENT) return {};
  return killByFreezing();
}

Result<void> ControlGroup::killByFreezing() const {
  const std::string freezer = folder_ + "/cgroup.freeze";
  const auto frozen = writeKernelFile(freezer, "1");
  eachGroup(folder_, 0, [&](const std::string& folder) {
    const std::string text = contentOfKernelFile(folder + "/cgroup.procs");
    for (const std::string_view line : split(text, '\n')) {
      ProcessId process = 0;
      std::from_chars(line.data(), line.data() + line.size(), process);
      const UniqueFd pidfd(process > 0 ? ::pidfd_open(process, 0) : -1);
      // The number may have changed hands before the pidfd was opened.
      if (pidfd && holdsProcess(folder, process)) {
        ::pidfd_send_signal(pidfd.get(), SIGKILL, nullptr, 0);
      }
    }
  });
  const auto thawed = writeKernelFile(freezer, "0");
  return frozen ? thawed : frozen;
}

ControlGroup::Use ControlGroup::use() const {
  Use use;
  use.processes = processes().size();
  const std::string processors = contentOfKernelFile(folder_ + "/cpu.stat");
  for (const std::string_view line : split(processors, '\n')) {
    if (!line.starts_with(kCpuTime)) continue;
    use.cpuTime = std::chrono::microseconds(numberIn(line.substr(kCpuTime.size())).value_or(0));
  }
  use.memoryBytes = numberIn(contentOfKernelFile(folder_ + "/memory.current"));
  return use;
}

bool ControlGroup::handControllersDown() const {
  const std::string controllers = contentOfKernelFile(folder_ + "/cgroup.controllers");
  bool haveWeights = false;
  for (const std::string_view each : split(controllers, ' ')) {
    const std::string_view name = each.substr(0, each.find('\n'));
    const bool isWeighted = name == "cpu" || name == "io";
    if (!isWeighted && name != "memory" && name != "pids") continue;
    const auto enabled =
        writeKernelFile(folder_ + "/cgroup.subtree_control", fmt::format("+{}", name));
    haveWeights = haveWeights || (isWeighted && enabled);
  }
  return haveWeights;
}

void ControlGroup::setWeight(int weight) const {
  for (const char* file : {"cpu.weight", "io.weight"}) {
    static_cast<void>(writeKernelFile(fmt::format("{}/{}", folder_, file), std::to_string(weight)));
  }
}

void ControlGroup::moveAllTo(const ControlGroup& other) const {
  for (int pass = 0; pass < kMaximumPasses; ++pass) {
    const auto members = processes();
    if (members.empty()) return;
    for (const ProcessId process : members) {
      static_cast<void>(writeKernelFile(other.folder() + "/cgroup.procs", std::to_string(process)));
    }
  }
}

bool ControlGroup::remove() const {
  if (::rmdir(folder_.c_str()) == 0 || errno == ENOENT) return true;
  eachGroup(folder_, 0, [](const std::string& folder) { ::rmdir(folder.c_str()); });
  return ::access(folder_.c_str(), F_OK) != 0 && errno == ENOENT;
}

// A line is "31 23 0:26 ROOT MOUNT-POINT OPTIONS FIELDS... - TYPE SOURCE SUPER-OPTIONS".
Result<ControlGroupHierarchy> ControlGroupHierarchy::find(const std::string& mountInfo) {
  bool isReadOnly = false;
  for (const std::string_view line : split(mountInfo, '\n')) {
    const auto fields = split(line, ' ');
    const auto dash = std::ranges::find(fields, "-");
    if (fields.size() < 10 || fields.end() - dash < 4 || dash[1] != "cgroup2") continue;
    const auto options = split(fields[5], ',');
    const auto superOptions = split(dash[3], ',');
    if (std::ranges::count(options, "ro") + std::ranges::count(superOptions, "ro") > 0) {
      isReadOnly = true;
      continue;
    }
    return ControlGroupHierarchy{unescaped(fields[4]), unescaped(fields[3])};
  }
  return std::unexpected(Error{ErrorCode::kNotFound, 0,
                               isReadOnly ? "the hierarchy of control groups (v2) is read-only"
                                          : "no hierarchy of control groups (v2) is mounted"});
}

Result<ControlGroupHierarchy> ControlGroupHierarchy::find() {
  return find(contentOfKernelFile("/proc/self/mountinfo"));
}

std::string ControlGroupHierarchy::folderOf(const std::string& groups) const {
  for (const std::string_view line : split(groups, '\n')) {
    if (!line.starts_with("0::/")) continue;
    std::string_view path = line.substr(3);
    if (root != "/") {
      if (!path.starts_with(root)) return {};
      path.remove_prefix(root.size());
      if (!path.empty() && path.front() != '/') return {};
    }
    // A process of another cgroup namespace may be outside of what this one shows.
    if (path.starts_with("/..")) return {};
    return path == "/" ? mountPoint : mountPoint + std::string(path);
  }
  return {};
}

}  // namespace platform
