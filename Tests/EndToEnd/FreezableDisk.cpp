#include "Tests/EndToEnd/FreezableDisk.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace platform {
namespace {

// The end of its input also means the end of the test. The loop device ends with its last user.
constexpr char kHelper[] = R"(
trap '' PIPE
truncate -s 64M "$1" && mkfs.ext4 -q "$1" && mount -o loop "$1" "$2"
status=$?
rm -f "$1"
test $status = 0 || exit 1
echo mounted
while read -r command; do
  case $command in
    freeze) fsfreeze --freeze "$2" ;;
    thaw) fsfreeze --unfreeze "$2" ;;
  esac
  echo "$command $?"
done
fsfreeze --unfreeze "$2" 2>/dev/null
umount --lazy "$2"
)";

}  // namespace

bool FreezableDisk::mountAt(const std::string& folder) {
  if (::geteuid() != 0) {
    why_ = "only root can mount a disk";
    return false;
  }
  helper_.emplace(
      std::vector<std::string>{"/bin/sh", "-c", kHelper, "helper", folder + ".image", folder},
      std::vector<std::string>{"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
  if (helper_->nextLineIfAny() == "mounted") return true;
  helper_->waitForExit();
  why_ = "no disk can be mounted here: " + helper_->errors();
  helper_.reset();
  return false;
}

void FreezableDisk::tell(const std::string& command) {
  helper_->send(command);
  EXPECT_EQ(helper_->nextLine(), command + " 0");
}

void FreezableDisk::unmount() {
  if (!helper_) return;
  helper_->closeInput();
  EXPECT_EQ(helper_->waitForExit(), ExitStatus{}) << helper_->errors();
  helper_.reset();
}

}  // namespace platform
