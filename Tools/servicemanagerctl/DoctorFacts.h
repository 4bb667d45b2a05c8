#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Time.h"

// The facts that "servicemanagerctl doctor" judges: plain values, which the probes fill in and a
// test can make up.

// Why a fact is not known.
struct NotKnown {
  enum class Why { kNotPermitted, kTimedOut, kFailed };
  Why why = Why::kFailed;
  std::string text = {};

  bool operator==(const NotKnown&) const = default;
};

template <typename T>
using Fact = std::expected<T, NotKnown>;

// The fact of a probe that was not made, for want of what it needs.
inline std::unexpected<NotKnown> notLookedAt() { return std::unexpected(NotKnown{}); }

// A program that runs, against the file that is installed.
struct RunningProgram {
  platform::ProcessId process = 0;
  std::string installed;  // the path
  // Whether the process executes the installed file.
  Fact<bool> isInstalledFile = notLookedAt();
};

// A server at its socket.
struct ServerFact {
  enum class State { kAnswers, kAbsent, kHangs, kNotPermitted, kNotTrusted, kFailed };
  State state = State::kAbsent;
  std::string text = {};  // the reason of any other state than kAnswers
  std::optional<RunningProgram> program = {};
};

// A socket, or a folder of sockets.
struct SocketFile {
  std::string path;
  bool isFolder = false;
  std::uint32_t mode = 0;  // the permissions alone
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::uint32_t expectedMode = 0;                // a folder: the bits that it may have at most
  std::vector<std::uint32_t> expectedOwners;     // any of them
  std::optional<std::uint32_t> expectedGroup{};  // counts only if the group has rights
};

struct GroupFact {
  bool exists = false;
  bool isMember = false;  // this process
};

struct LimitsFact {
  std::uint64_t descriptors = 0;  // the limit of the job host
  // Whether the job host can make a control group for each job; else why it can't.
  std::expected<void, std::string> groups;
};

struct KernelFact {
  enum class Verity { kAvailable, kNotAvailable, kUnknown };
  std::string release;
  bool hasPidfd = false;
  bool hasOpenat2 = false;
  std::optional<bool> hasGroupKill = {};  // empty without control groups
  Verity verity = Verity::kUnknown;       // of the file system with the product's programs
};

struct AnchorsFact {
  struct Anchor {
    std::string subject;
    std::optional<platform::WallTime> notBefore = {};
    std::optional<platform::WallTime> notAfter = {};
  };
  std::vector<Anchor> anchors;
  std::vector<std::string> remarks;        // the faults of single files
  std::optional<std::string> unread = {};  // why no verdict can be given
};

struct ClockFact {
  platform::WallTime now;
  bool isSynchronized = false;
  std::optional<platform::WallTime> newestProgram = {};  // when it was installed
};

struct DiskFact {
  std::string use;  // "log", "settings"
  std::string path;
  std::uint64_t freeBytes = 0;
  std::uint64_t totalBytes = 0;
  std::uint64_t freeFiles = 0;
  std::uint64_t totalFiles = 0;  // 0 if the file system does not count them
  bool isReadOnly = false;
};

struct InstalledFile {
  std::string path;
  std::string use;
  bool exists = false;
};

struct DoctorFacts {
  // Why the platform root or its configuration can't be used; then nothing else is known.
  std::optional<std::string> platformFault = {};
  platform::PlatformConfiguration configuration = {};
  platform::UserId user = 0;
  Fact<std::vector<InstalledFile>> installed = notLookedAt();
  Fact<GroupFact> group = notLookedAt();  // counts only if a group is configured
  ServerFact host = {};
  ServerFact daemon = {};
  ServerFact bus = {};
  std::optional<ServerFact> systemd = {};  // if it starts the jobs
  Fact<std::vector<SocketFile>> sockets = notLookedAt();
  Fact<LimitsFact> limits = notLookedAt();
  Fact<KernelFact> kernel = notLookedAt();
  Fact<AnchorsFact> anchors = notLookedAt();
  Fact<ClockFact> clock = notLookedAt();
  std::vector<std::pair<std::string, Fact<DiskFact>>> disks = {};  // by their use
};
