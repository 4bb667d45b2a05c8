#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "JobHost/Processes/Processes.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {

// A process with a mark, held by its pidfd.
class LinuxMarkedProcess final : public MarkedProcess {
 public:
  // The process of this number and "stat" file, if it has a mark of `host` and is wanted, else
  // null. Fails for want of descriptors.
  static platform::Result<std::unique_ptr<MarkedProcess>> find(std::string_view number,
                                                               const std::string& stat,
                                                               std::uint64_t host,
                                                               const Processes::Wanted& isWanted);

  LinuxMarkedProcess(std::string label, const StartFields& identity, bool isLeader,
                     platform::UniqueFd pidfd)
      : label_(std::move(label)),
        identity_(identity),
        isLeader_(isLeader),
        pidfd_(std::move(pidfd)) {}

  const std::string& label() const override { return label_; }
  const StartFields& identity() const override { return identity_; }
  bool isLeader() const override { return isLeader_; }
  bool hasEnded() const override;
  platform::Result<void> signal(int signal) override;

 private:
  std::string label_;
  StartFields identity_;
  bool isLeader_;
  platform::UniqueFd pidfd_;
};

}  // namespace jobhost
