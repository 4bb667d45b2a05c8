// A program that is made with the kit alone, beside the demo product.

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DemoRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class KitTest : public testing::Test {
 protected:
  KitTest() {
    std::filesystem::copy_file(KIT_PROGRAM, program_);
    std::filesystem::copy_file(KIT_C_PROGRAM, programInC_);
  }

  ChildProgram start(std::vector<std::string> arguments) const {
    if (arguments.front() != programInC_) arguments.insert(arguments.begin(), program_);
    return ChildProgram(std::move(arguments), {});
  }
  // The output of a program that has succeeded.
  std::string outputOf(std::vector<std::string> arguments) const {
    ChildProgram program = start(std::move(arguments));
    EXPECT_EQ(program.waitForExit(), kSuccess);
    EXPECT_EQ(program.errors(), "");
    return program.restOfOutput();
  }

  const DemoRoot root_;
  const std::string program_ = root_.path() + "/opt/demo/kit_program";
  const std::string programInC_ = root_.path() + "/opt/demo/kit_c_program";
};

TEST_F(KitTest, ReadsChangesAndWatchesSettings) {
  EXPECT_THAT(outputOf({"settings"}),
              AllOf(StartsWith("done\nhello\n"
                               "done\n[1, 2.5, 1, <null>]\n"
                               "done\n(null)\n"
                               "error 3: a setting can't be nil\n"
                               "error 1: com.example.nobody can't be reached\n"
                               "done\n"),
                    EndsWith("changed Last\nending\n")));
}

TEST_F(KitTest, AsksTheServiceManager) {
  const std::string agent = std::to_string(root_.processOf("com.vantor.demo.agent"));
  EXPECT_THAT(outputOf({"services", "com.vantor.demo.updater"}),
              AllOf(HasSubstr("com.vantor.demo.agent " + agent + "\n"),
                    HasSubstr("com.vantor.demo.webfilter -\n"),
                    HasSubstr("done\ndone\nstopped\ndone\nvalid: agent\n")));
}

TEST_F(KitTest, ServesAndCallsAnEndpoint) {
  ChildProgram server = start({"echo", "com.example.echo"});
  EXPECT_EQ(server.nextLine(), "done");
  EXPECT_EQ(server.nextLine(), "serving");
  EXPECT_THAT(outputOf({"call", "com.example.echo", "hello"}),
              AllOf(StartsWith("hello\nerror 2: "),
                    HasSubstr("-[other:withReply:]: not a message of this object")));
  server.signal(SIGTERM);
  EXPECT_EQ(server.nextLine(), "ending");
  EXPECT_EQ(server.waitForExit(), kSuccess);
}

TEST_F(KitTest, AProgramInCUsesSettings) {
  EXPECT_EQ(outputOf({programInC_}), "[7]\nerror 3: a setting can't be nil\n(null)\n");
}

TEST_F(KitTest, AProgramInCServesAndCallsAnEndpoint) {
  ChildProgram server = start({programInC_, "serve"});
  EXPECT_EQ(server.nextLine(), "agent runs");
  EXPECT_EQ(server.nextLine(), "serving");
  EXPECT_EQ(outputOf({programInC_, "call"}), "[hello]\n");
  server.signal(SIGTERM);
  EXPECT_EQ(server.nextLine(), "ending after 1 calls");
  EXPECT_EQ(server.waitForExit(), kSuccess);
}

}  // namespace
}  // namespace platform
