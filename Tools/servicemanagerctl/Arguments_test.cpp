#include "Tools/servicemanagerctl/Arguments.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/JobsCommands.h"
#include "Tools/servicemanagerctl/SettingsCommands.h"

namespace {

class ArgumentsTest : public testing::Test {
 protected:
  ArgumentsTest() {
    app_.require_subcommand(1);
    addRootOption(app_, root_);
  }

  void parse(std::vector<std::string> arguments) {
    std::ranges::reverse(arguments);  // CLI11 takes them in reverse.
    app_.parse(std::move(arguments));
  }

  // The fault of arguments that can be parsed.
  std::string fault(std::vector<std::string> arguments) {
    parse(std::move(arguments));
    const auto checked = checkArguments(app_);
    if (checked) return "";
    EXPECT_EQ(checked.error().exitStatus, kExitNotUnderstood);
    return checked.error().text;
  }

  // The error text for arguments that can't be parsed.
  std::string refusal(const std::vector<std::string>& arguments) {
    try {
      parse(arguments);
    } catch (const CLI::ParseError& error) {
      return parseErrorText(app_, error, arguments);
    }
    return "understood";
  }

  CLI::App app_;
  const JobsCommands jobs_{app_};
  const SettingsCommands settings_{app_};
  std::string root_;
};

TEST_F(ArgumentsTest, TextMustBeUtf8) {
  EXPECT_EQ(fault({"settings", "set", "common", "k\u00e9", "v\u20ac"}), "");
  EXPECT_EQ(fault({"settings", "set", "common", "\xff", "v"}), "argument \"\\ufffd\" is not UTF-8");
  EXPECT_EQ(fault({"settings", "set", "common", "k", "v\xc3"}),
            "argument \"v\\ufffd\" is not UTF-8");
  EXPECT_EQ(fault({"settings", "list", "\xff"}), "argument \"\\ufffd\" is not UTF-8");
  EXPECT_EQ(fault({"jobs", "show", "\xff"}), "argument \"\\ufffd\" is not UTF-8");
}

TEST_F(ArgumentsTest, APathMayHaveAnyBytes) {
  EXPECT_EQ(fault({"jobs", "submit", "/\xff"}), "");
  EXPECT_EQ(fault({"--root", "/\xff", "jobs", "list"}), "");
  EXPECT_EQ(fault({"jobs", "list", "--root", "/\xff"}), "");
}

TEST_F(ArgumentsTest, AnEmptyRootIsRefused) {
  constexpr char kFault[] = "--root is empty; it is the folder that another platform lies in";
  EXPECT_EQ(fault({"--root", "", "jobs", "list"}), kFault);
  EXPECT_EQ(fault({"jobs", "--root", "", "list"}), kFault);
  EXPECT_EQ(fault({"jobs", "list", "--root", ""}), kFault);
  EXPECT_EQ(fault({"jobs", "list"}), "");
}

TEST_F(ArgumentsTest, AnUnknownWordIsNamed) {
  EXPECT_EQ(refusal({"bogus"}),
            "there is no command \"bogus\"; \"servicemanagerctl --help\" tells which there are");
  EXPECT_EQ(refusal({"--bogus"}),
            "there is no option \"--bogus\"; \"servicemanagerctl --help\" tells which there are");
  EXPECT_EQ(refusal({"bo\033gus", "list"}),
            "there is no command \"bo\\u001bgus\"; \"servicemanagerctl --help\" tells which there "
            "are");
  EXPECT_EQ(refusal({"jobs", "bogus"}),
            "there is no command \"jobs bogus\"; \"servicemanagerctl jobs --help\" tells which "
            "there are");
}

TEST_F(ArgumentsTest, ASimilarCommandIsProposed) {
  EXPECT_EQ(refusal({"job"}),
            "there is no command \"job\"; did you mean jobs? "
            "\"servicemanagerctl --help\" tells which there are");
  EXPECT_EQ(refusal({"jobs", "remoe"}),
            "there is no command \"jobs remoe\"; did you mean remove? "
            "\"servicemanagerctl jobs --help\" tells which there are");
}

TEST_F(ArgumentsTest, AMissingArgumentIsNamed) {
  EXPECT_EQ(refusal({}), "A subcommand is required");
  EXPECT_EQ(refusal({"jobs", "show"}), "label is required");
}

TEST_F(ArgumentsTest, AnErrorRepeats80CharactersOfAWordAtMost) {
  const std::string most(80, 'x');
  EXPECT_EQ(refusal({"jobs", "list", most}), "The following argument was not expected: " + most);
  EXPECT_EQ(refusal({"jobs", "list", most + "y"}),
            "The following argument was not expected: " + most + "...");
  EXPECT_EQ(refusal({most + "y"}), "there is no command \"" + most +
                                       "...\"; \"servicemanagerctl --help\" tells which there are");
}

}  // namespace
