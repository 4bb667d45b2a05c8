#pragma once

#include <optional>
#include <string>

#include "Tests/EndToEnd/ChildProgram.h"

namespace platform {

// A small file system of its own, which can be frozen: no write to it returns then. A helper thaws
// and unmounts it if this program is killed.
class FreezableDisk {
 public:
  FreezableDisk() = default;
  FreezableDisk(const FreezableDisk&) = delete;
  FreezableDisk& operator=(const FreezableDisk&) = delete;
  ~FreezableDisk() { unmount(); }

  // False if this machine or this user can't do that; the reason is in why().
  [[nodiscard]] bool mountAt(const std::string& folder);
  const std::string& why() const { return why_; }

  void freeze() { tell("freeze"); }
  void thaw() { tell("thaw"); }
  // Thaws it and takes it out of its folder. It goes on for programs that have files of it open.
  void unmount();

 private:
  void tell(const std::string& command);

  std::optional<ChildProgram> helper_;
  std::string why_ = "it was never mounted";
};

}  // namespace platform
