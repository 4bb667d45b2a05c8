#include "JobHost/Processes/JobGroups.h"

#include <charconv>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateRecord.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"

namespace jobhost {

using platform::ControlGroup;
using platform::ControlGroupHierarchy;
using platform::Error;
using platform::ErrorCode;
using platform::Result;

namespace {

// The prefix of a job's group. Without it, a label could mean one of the kernel's own files.
constexpr std::string_view kJobPrefix = "job-";
// That of its group for abandoned processes.
constexpr std::string_view kAbandoningPrefix = "abandons-";
constexpr std::string_view kAbandoned = "abandoned";
constexpr std::string_view kPlain =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
// A longer name ends with a hash of the label behind this, and does not tell the label.
constexpr char kHashed = '~';
constexpr std::size_t kMaximumNameBytes = 200;

std::string groupNameOf(std::string_view label, bool abandonsGroup = false) {
  std::string name(abandonsGroup ? kAbandoningPrefix : kJobPrefix);
  for (const char character : label) {
    if (kPlain.find(character) != kPlain.npos) {
      name += character;
    } else {
      name += fmt::format("%{:02x}", static_cast<unsigned char>(character));
    }
  }
  if (name.size() <= kMaximumNameBytes) return name;
  const auto hash =
      hashOn(kEmptyHash, reinterpret_cast<const std::uint8_t*>(label.data()), label.size());
  return fmt::format("{}{}{:016x}", std::string_view(name).substr(0, kMaximumNameBytes), kHashed,
                     hash);
}

}  // namespace

Result<JobGroups> JobGroups::create(std::uint64_t host) {
  auto hierarchy = ControlGroupHierarchy::find();
  if (!hierarchy) return std::unexpected(std::move(hierarchy.error()));
  const std::string own = hierarchy->folderOf(platform::contentOfKernelFile("/proc/self/cgroup"));
  if (own.empty()) {
    return std::unexpected(
        Error{ErrorCode::kNotFound, 0, "the host's own control group (v2) is not visible here"});
  }
  const std::string name = fmt::format("vantor-{:016x}", host);
  JobGroups groups(*std::move(hierarchy), name, fmt::format("{}/{}", own, name));
  if (auto opened = ControlGroup(groups.folder_).open(); !opened) {
    return std::unexpected(std::move(opened.error()));
  }
  groups.haveWeights_ = ControlGroup(groups.folder_).handControllersDown();
  return groups;
}

JobGroups::JobGroups(ControlGroupHierarchy hierarchy, std::string name, std::string folder)
    : hierarchy_(std::move(hierarchy)), name_(std::move(name)), folder_(std::move(folder)) {}

JobGroups::JobGroups(JobGroups&& other) noexcept
    : hierarchy_(std::move(other.hierarchy_)),
      name_(std::move(other.name_)),
      folder_(std::exchange(other.folder_, {})),
      haveWeights_(other.haveWeights_),
      discarded_(std::move(other.discarded_)),
      outworn_(std::move(other.outworn_)) {}

JobGroups::~JobGroups() {
  if (folder_.empty()) return;
  removeDiscarded();
  ControlGroup(folder_).remove();
}

ControlGroup JobGroups::of(std::string_view label, bool abandonsGroup) const {
  return ControlGroup(fmt::format("{}/{}", folder_, groupNameOf(label, abandonsGroup)));
}

std::string JobGroups::nameOf(const ControlGroup& group) const {
  const std::string& path = group.folder();
  const std::size_t end = path.rfind('/');
  return path.compare(0, end, folder_) == 0 ? path.substr(end + 1) : path;
}

ControlGroup JobGroups::named(const std::string& name) const {
  return ControlGroup(name.starts_with('/') ? name : fmt::format("{}/{}", folder_, name));
}

Result<platform::UniqueFd> JobGroups::open(const ControlGroup& group) {
  discarded_.erase(group.folder());
  if (outworn_.contains(group.folder()) && group.remove()) outworn_.erase(group.folder());
  auto opened = group.open();
  if (opened || opened.error().code != ErrorCode::kNotFound) return opened;
  static_cast<void>(ControlGroup(folder_).open());
  return group.open();
}

Result<void> JobGroups::kill(const ControlGroup& group) {
  if (!group.isPopulated()) return {};
  replaceSoon(group);
  return group.kill();
}

std::optional<ControlGroup> JobGroups::holding(const std::string& process) const {
  const std::string folder =
      hierarchy_.folderOf(platform::contentOfKernelFile(fmt::format("/proc/{}/cgroup", process)));
  for (const std::string_view kind : {kJobPrefix, kAbandoningPrefix}) {
    const std::string prefix = fmt::format("/{}/{}", name_, kind);
    const std::size_t begin = folder.find(prefix);
    if (begin == folder.npos) continue;
    // The process may be in a group below the job's.
    ControlGroup group(folder.substr(0, folder.find('/', begin + prefix.size())));
    // Users can make groups where systemd lets them, with any name.
    struct stat status{};
    const bool isOurs =
        ::stat(group.folder().c_str(), &status) == 0 && status.st_uid == ::geteuid();
    return isOurs ? std::optional(std::move(group)) : std::nullopt;
  }
  return std::nullopt;
}

bool JobGroups::isOf(const ControlGroup& group, std::string_view label) {
  const std::string_view name =
      std::string_view(group.folder()).substr(group.folder().rfind('/') + 1);
  return name == groupNameOf(label) || name == groupNameOf(label, true);
}

std::optional<std::string> JobGroups::labelOf(const ControlGroup& group) {
  std::string_view name = group.folder();
  name.remove_prefix(name.rfind('/') + 1);
  if (!name.starts_with(kJobPrefix) || name.find(kHashed) != name.npos) return std::nullopt;
  name.remove_prefix(kJobPrefix.size());
  std::string label;
  for (std::size_t i = 0; i < name.size(); ++i) {
    unsigned byte = 0;
    const bool isEscape =
        name[i] == '%' && i + 2 < name.size() &&
        std::from_chars(&name[i + 1], &name[i + 1] + 2, byte, 16).ec == std::errc();
    label += isEscape ? static_cast<char>(byte) : name[i];
    if (isEscape) i += 2;
  }
  return label;
}

void JobGroups::discard(std::string_view label) {
  discard(of(label));
  const ControlGroup abandoning = of(label, true);
  if (!abandoning.remove()) discarded_.insert(abandoning.folder());
  removeDiscarded();
}

void JobGroups::discardOthers(const std::vector<std::string>& labels) {
  std::unordered_set<std::string> kept;
  for (const std::string& label : labels) {
    kept.insert(groupNameOf(label));
    kept.insert(groupNameOf(label, true));
  }
  std::vector<std::string> others;
  static_cast<void>(platform::eachNameInFolder(folder_, [&](std::string_view name) {
    if (!kept.contains(std::string(name))) others.emplace_back(name);
    return true;
  }));
  for (const std::string& name : others) {
    const ControlGroup group(fmt::format("{}/{}", folder_, name));
    if (name.starts_with(kJobPrefix)) discard(group);
    if (name.starts_with(kAbandoningPrefix)) group.remove();
  }
}

void JobGroups::discard(const ControlGroup& group) {
  outworn_.erase(group.folder());
  if (group.remove()) return;
  static_cast<void>(kill(group));
  discarded_.insert(group.folder());
}

void JobGroups::abandon(std::string_view label) {
  const ControlGroup group = of(label, true);
  if (group.processes().empty()) return;
  const ControlGroup abandoned(fmt::format("{}/{}", folder_, kAbandoned));
  if (open(abandoned)) group.moveAllTo(abandoned);
}

void JobGroups::removeDiscarded() {
  std::erase_if(discarded_,
                [](const std::string& folder) { return ControlGroup(folder).remove(); });
}

}  // namespace jobhost
