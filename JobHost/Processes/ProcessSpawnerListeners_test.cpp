// The sockets of services, as processes get them.

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {
namespace {

using platform::UniqueFd;
using testing::HasSubstr;

TEST_F(ProcessSpawnerTest, AListenerIsPassedByTheUsualConvention) {
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  JobDefinition job = script(
      "echo $LISTEN_FDS $LISTEN_FDNAMES $OTHER; test $LISTEN_PID = $$ && readlink /proc/$$/fd/3");
  job.machServices = {"com.example.service"};
  job.environment = {{"LISTEN_FDS", "9"}, {"OTHER", "kept"}};
  struct stat status{};
  ASSERT_EQ(::fstat(socket.get(), &status), 0);
  EXPECT_EQ(outputOf(job, {socket.get()}),
            "1 com.example.service kept\nsocket:[" + std::to_string(status.st_ino) + "]\n");
}

TEST_F(ProcessSpawnerTest, SeveralListenersArePassedInTheOrderOfTheirNames) {
  std::vector<UniqueFd> sockets;
  std::vector<int> passed;
  JobDefinition job = script("echo $LISTEN_FDS $LISTEN_FDNAMES; readlink /proc/$$/fd/{3,4,5,6,7}");
  job.arguments[0] = job.program = "/bin/bash";
  std::string expected = "5 a:b:c:d:e\n";
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    sockets.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    struct stat status{};
    ASSERT_EQ(::fstat(sockets.back().get(), &status), 0);
    expected += "socket:[" + std::to_string(status.st_ino) + "]\n";
    passed.push_back(sockets.back().get());
    job.machServices.push_back(name);
  }
  EXPECT_EQ(outputOf(job, passed), expected);
  job.machServices.pop_back();
  const auto spawned = spawn(job, passed);
  ASSERT_FALSE(spawned);
  EXPECT_THAT(describe(spawned.error()), HasSubstr("5 sockets are passed to it"));
}

}  // namespace
}  // namespace jobhost
