#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Tools/servicemanagerctl/DoctorParts.h"

using Severity = Finding::Severity;
using platform::WallTime;

namespace {

// An anchor that expires within this time is warned of: replacing a key takes several releases.
constexpr std::chrono::days kTimeToReplaceAnchor{30};
// As the signature check allows for clocks that differ (see docs/signing.md).
constexpr std::chrono::minutes kClockTolerance{5};

std::string dayOf(WallTime time) {
  return fmt::format("{:%Y-%m-%d}", std::chrono::time_point_cast<std::chrono::seconds>(time));
}

// Returns whether the anchor is good for some time.
bool judgeAnchor(Findings& findings, const AnchorsFact::Anchor& anchor, WallTime now) {
  const auto add = [&](const char* code, Severity severity, const std::string& what) {
    findings.push_back({code, severity, fmt::format("The anchor \"{}\" {}.", anchor.subject, what),
                        "Replace the key in the four steps of docs/signing.md."});
    return false;
  };
  if (anchor.notBefore && now < *anchor.notBefore)
    return add("anchor-early", Severity::kWarning, "counts only from " + dayOf(*anchor.notBefore));
  if (!anchor.notAfter) return true;
  // Code that was signed before stays valid, so services go on.
  if (now >= *anchor.notAfter)
    return add(
        "anchor-expired", Severity::kWarning,
        "has expired on " + dayOf(*anchor.notAfter) + ", so nothing new can be signed by it");
  if (now + kTimeToReplaceAnchor >= *anchor.notAfter)
    return add("anchor-expires", Severity::kWarning, "expires on " + dayOf(*anchor.notAfter));
  return true;
}

std::string sizeText(std::uint64_t bytes) {
  return fmt::format("{} MiB", bytes / (std::uint64_t{1024} * 1024));
}

void judgeDisk(Findings& findings, const DiskFact& disk) {
  constexpr std::uint64_t kTooLittle = std::uint64_t{16} * 1024 * 1024;
  constexpr std::uint64_t kLittle = std::uint64_t{128} * 1024 * 1024;
  constexpr std::uint64_t kFewFiles = 1000;
  const std::string part = "disk-" + disk.use;
  const std::string where = fmt::format("the {} ({})", disk.use, disk.path);
  if (disk.isReadOnly)
    return findings.push_back({part + "-read-only", Severity::kError,
                               fmt::format("The file system of {} can only be read.", where),
                               "Mount it for writing; after a fault of the disk, check it first."});
  const std::string free = fmt::format("The file system of {} has {} left of {}", where,
                                       sizeText(disk.freeBytes), sizeText(disk.totalBytes));
  const std::string advice = "Make room on it.";
  if (disk.freeBytes < kTooLittle)
    return findings.push_back({part + "-full", Severity::kError, free + ".", advice});
  if (disk.totalFiles > 0 && disk.freeFiles < kFewFiles)
    return findings.push_back(
        {part + "-full", Severity::kError,
         fmt::format("The file system of {} has room for {} files only.", where, disk.freeFiles),
         advice});
  if (disk.freeBytes < kLittle)
    return findings.push_back({part + "-low", Severity::kWarning, free + ".", advice});
  findings.push_back({part, Severity::kOk, free + "."});
}

}  // namespace

void judgeKernel(Findings& findings, const DoctorFacts& facts) {
  if (!facts.kernel) return addUnknown(findings, "kernel", facts.kernel.error(), "the kernel");
  const KernelFact& kernel = *facts.kernel;
  const auto add = [&](const char* code, Severity severity, std::string text, std::string advice) {
    findings.push_back({code, severity, std::move(text), std::move(advice)});
  };
  constexpr char kNewer[] = "Use a newer kernel, and let no filter of system calls refuse it.";
  if (!kernel.hasPidfd)
    add("kernel-pidfd", Severity::kError,
        "The kernel has no pidfd_open() for this program, so no end of a process is noticed.",
        kNewer);
  if (!kernel.hasOpenat2)
    add("kernel-openat2", Severity::kError,
        "The kernel has no openat2() for this program, so no bundle can be checked.", kNewer);
  if (kernel.hasGroupKill == false)
    add("kernel-cgroup-kill", Severity::kNote,
        "The kernel has no cgroup.kill, so the processes of a job are frozen and killed one by "
        "one.",
        "Linux 5.14 and later have it.");
  if (kernel.verity == KernelFact::Verity::kNotAvailable)
    add("kernel-fs-verity", Severity::kNote,
        "The file system of the programs has no fs-verity, so programs are compared before each "
        "start.",
        "");
  if (kernel.hasPidfd && kernel.hasOpenat2)
    add("kernel", Severity::kOk,
        fmt::format("The kernel {} has what the product needs.", kernel.release), "");
}

void judgeClock(Findings& findings, const DoctorFacts& facts) {
  if (!facts.clock) return addUnknown(findings, "clock", facts.clock.error(), "the clock");
  const ClockFact& clock = *facts.clock;
  constexpr char kSet[] = "Set the clock, and let NTP keep it (\"timedatectl set-ntp true\").";
  if (clock.newestProgram && clock.now + kClockTolerance < *clock.newestProgram)
    return findings.push_back(
        {"clock-behind", Severity::kError,
         fmt::format("The clock says {}, but a program was installed on {}: signatures of a later "
                     "time are refused.",
                     dayOf(clock.now), dayOf(*clock.newestProgram)),
         kSet});
  if (!clock.isSynchronized)
    return findings.push_back({"clock-unsynchronized", Severity::kNote,
                               "The kernel does not know that the clock is synchronized.", kSet});
  findings.push_back({"clock", Severity::kOk, "The clock is synchronized."});
}

void judgeAnchors(Findings& findings, const DoctorFacts& facts) {
  if (!facts.anchors) return addUnknown(findings, "anchors", facts.anchors.error(), "the anchors");
  const AnchorsFact& anchors = *facts.anchors;
  if (anchors.unread)
    findings.push_back({"anchors-unread", Severity::kError,
                        fmt::format("No program can be checked: {}.", *anchors.unread),
                        "Repair that file; nothing is started before."});
  for (const std::string& remark : anchors.remarks)
    findings.push_back({"anchor-ignored", Severity::kWarning,
                        fmt::format("A file of the anchors is not used: {}.", remark),
                        "Repair or remove it."});
  if (anchors.anchors.empty())
    return findings.push_back(
        {"anchors-none", Severity::kError,
         "No certificate is trusted, so no program of the product is started.",
         "Put the certificate of the signer or its authority into "
         "etc/vantor/anchors/ of the platform root."});
  if (!facts.clock) return;
  bool areGood = !anchors.unread && anchors.remarks.empty();
  for (const AnchorsFact::Anchor& anchor : anchors.anchors)
    areGood = judgeAnchor(findings, anchor, facts.clock->now) && areGood;
  if (areGood)
    findings.push_back({"anchors", Severity::kOk,
                        fmt::format("{} certificates are trusted, and none expires soon.",
                                    anchors.anchors.size())});
}

void judgeDisks(Findings& findings, const DoctorFacts& facts) {
  for (const auto& [use, disk] : facts.disks) {
    if (disk) {
      judgeDisk(findings, *disk);
    } else {
      addUnknown(findings, "disk-" + use, disk.error(), "the disk of the " + use);
    }
  }
}
