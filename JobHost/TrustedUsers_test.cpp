#include "JobHost/TrustedUsers.h"

#include <string>

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

namespace jobhost {
namespace {

Processes::Marked markOf(platform::UserId user) {
  Processes::Marked marked;
  marked.user = user;
  return marked;
}

TEST(TrustedUsersTest, RootAndTheHostsUserAreTrusted) {
  TrustedUsers users;
  EXPECT_TRUE(users.areMakersOf(markOf(0), nullptr));
  EXPECT_TRUE(users.areMakersOf(markOf(::geteuid()), nullptr));
  EXPECT_FALSE(users.areMakersOf(markOf(65533), nullptr));
}

TEST(TrustedUsersTest, TheJobsUserIsTrusted) {
  const passwd* const nobody = ::getpwnam("nobody");
  if (!nobody) GTEST_SKIP() << "there is no user nobody";
  TrustedUsers users;
  const std::string name = "nobody";
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(users.areMakersOf(markOf(nobody->pw_uid), &name));
    EXPECT_FALSE(users.areMakersOf(markOf(65533), &name));
  }
}

TEST(TrustedUsersTest, AnUnknownNameIsNoFailure) {
  TrustedUsers users;
  const std::string name = "no-such-user-here";
  EXPECT_FALSE(users.areMakersOf(markOf(65533), &name));
  EXPECT_FALSE(users.failure());
}

}  // namespace
}  // namespace jobhost
