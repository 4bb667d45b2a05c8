#include "Platform/Linux/CodeSigning/FileFact.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

// Runs in its own process, which changes its root folder before it first checks it.
[[noreturn]] void changeTheRootFolder(const std::string& root) {
  FileFact fact{"/", FileFact::Covers::kPlace, {}};
  if (::chroot(root.c_str()) != 0 || ::lstat("/", &fact.status) != 0) ::_exit(2);
  const bool heldBefore = fact.stillHolds();
  ::chmod("/", 0777);
  ::_exit(heldBefore && !fact.stillHolds() ? 0 : 1);
}

TEST(FileFactDeathTest, ARootFolderThatOthersMayWriteEndsTheFact) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root may change its root folder";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const TemporaryFolder folder;
  EXPECT_EXIT(changeTheRootFolder(folder.path()), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace platform
