#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "Platform/Linux/Processes/ControlGroup.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The control groups of jobs, one for each label, in a folder of their own below the host's own
// group. The folder has the host's mark in its name, so that two hosts never share one. Whatever a
// process of a job starts stays in the job's group. A label has a second group for processes whose
// definition has "AbandonProcessGroup": that one is never killed, whatever else fails.
//
// They have the controllers that the host's own group hands down. The host enables none there:
// systemd could not start the next host in a group that hands controllers down.
class JobGroups {
 public:
  // Fails if this process can't make groups, with a text that says why.
  static platform::Result<JobGroups> create(std::uint64_t host);

  JobGroups(JobGroups&& other) noexcept;
  JobGroups& operator=(JobGroups&&) = delete;
  // Removes the folder if no job has a process.
  ~JobGroups();

  platform::ControlGroup of(std::string_view label, bool abandonsGroup = false) const;

  // A short name for a group of this host, else the whole path, and the group of such a name.
  std::string nameOf(const platform::ControlGroup& group) const;
  platform::ControlGroup named(const std::string& name) const;

  // ControlGroup::open(), also if the folder of all groups is missing. Replaces the group if that
  // is due and possible, and does not remove it any more before the next discard().
  platform::Result<platform::UniqueFd> open(const platform::ControlGroup& group);

  // ControlGroup::kill(), unless no process is in the group. The group is replaced before
  // the next start.
  platform::Result<void> kill(const platform::ControlGroup& group);

  // The kernel lets no process begin in the group.
  void replaceSoon(const platform::ControlGroup& group) { outworn_.insert(group.folder()); }

  // Whether the groups can have weights.
  bool haveWeights() const { return haveWeights_; }

  // The group that holds a process, if it is of either kind and belongs to the host's user. It may
  // be one that an earlier host has made in a group of its own.
  std::optional<platform::ControlGroup> holding(const std::string& process) const;

  // Whether it is a group of this label, of either kind.
  static bool isOf(const platform::ControlGroup& group, std::string_view label);

  // The label of a job's group, if its name tells. Empty for a group whose processes are abandoned.
  static std::optional<std::string> labelOf(const platform::ControlGroup& group);

  // Kills what is left in the label's group and removes it, as soon as it is empty. Its group for
  // abandoned processes is only removed.
  void discard(std::string_view label);

  // The same for all groups but those of these labels.
  void discardOthers(const std::vector<std::string>& labels);

  // Takes the processes out of the label's group for abandoned processes: they are nobody's from
  // now on. If that fails, they only share their group with the label's later processes of this
  // kind.
  void abandon(std::string_view label);

 private:
  JobGroups(platform::ControlGroupHierarchy hierarchy, std::string name, std::string folder);

  void discard(const platform::ControlGroup& group);
  void removeDiscarded();

  platform::ControlGroupHierarchy hierarchy_;
  std::string name_;    // of the folder
  std::string folder_;  // empty if it was moved from
  bool haveWeights_ = false;
  // Folders of groups that were not empty when they were to be removed.
  std::unordered_set<std::string> discarded_;
  // Those to be replaced. Some kernels (6.18) kill every child that is cloned into a group that
  // was killed once, because they compare it with the group of the parent.
  std::unordered_set<std::string> outworn_;
};

}  // namespace jobhost
