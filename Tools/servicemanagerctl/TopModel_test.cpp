#include "Tools/servicemanagerctl/TopModel.h"

#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kList[] =
    "com.example.agent\trunning\t4711\t2026-01-31T11:59:00Z\t3\t\n"
    "com.example.filter\tstopped\t\t\t\tswitch off: common/On\n"
    "com.example.scanner\twaiting\t\t2026-01-31T11:00:00Z\t7\trestarts in 7 s\n";

class TopModelTest : public testing::Test {
 protected:
  TopModelTest() { model_.listHasEnded(true, kList, "", kNoon); }

  TopAction press(int key) { return model_.press(key, kHeight); }
  void type(const std::string& text) {
    for (const char key : text) press(key);
  }
  std::string screen(std::size_t width = 80) const {
    std::string text;
    for (const TopLine& line : model_.lines(width, kHeight)) text += line.text + "\n";
    return text;
  }
  std::string selected() const {
    for (const TopLine& line : model_.lines(80, kHeight))
      if (line.look == TopLine::Look::kSelected) return line.text.substr(0, line.text.find(' '));
    return "";
  }

  static constexpr std::size_t kHeight = 24;
  const WallTime kNoon =
      std::chrono::sys_days(std::chrono::January / 31 / 2026) + std::chrono::hours(12);
  TopModel model_;
};

TEST_F(TopModelTest, TheScreenFillsTheTerminal) {
  for (const auto& [width, height] : {std::pair(80, 24), {60, 10}, {20, 3}, {1, 1}, {200, 50}}) {
    const auto lines =
        model_.lines(static_cast<std::size_t>(width), static_cast<std::size_t>(height));
    EXPECT_LE(lines.size(), static_cast<std::size_t>(height));
    for (const TopLine& line : lines) EXPECT_EQ(line.text.size(), static_cast<std::size_t>(width));
  }
  EXPECT_THAT(screen(), HasSubstr("com.example.agent   running         4711   60 s      3"));
  EXPECT_THAT(screen(), HasSubstr("restarts in 7 s"));
  EXPECT_THAT(screen(), StartsWith("3 of 3 services"));
}

TEST_F(TopModelTest, KeysActOnTheChosenService) {
  press(top_keys::kDown);
  EXPECT_EQ(press('s'), (TopAction{TopAction::Kind::kAct, {"start", "com.example.filter"}}));
  EXPECT_THAT(screen(), HasSubstr("start com.example.filter ..."));
  model_.actionHasEnded("com.example.filter runs as process 7.\nmore");
  EXPECT_THAT(screen(), HasSubstr("com.example.filter runs as process 7."));
  EXPECT_EQ(press('t').arguments.front(), "stop");
  EXPECT_EQ(press('r').arguments.front(), "restart");
  EXPECT_EQ(press('e'), (TopAction{TopAction::Kind::kPage, {"explain", "com.example.filter"}}));
  EXPECT_EQ(press('l').arguments.front(), "log");
  EXPECT_EQ(press('x'), TopAction());
  EXPECT_EQ(press('q').kind, TopAction::Kind::kQuit);
}

TEST_F(TopModelTest, TheChoiceStaysWithItsServiceAndAtTheEnds) {
  press(top_keys::kEnd);
  EXPECT_EQ(selected(), "com.example.scanner");
  press(top_keys::kDown);
  EXPECT_EQ(selected(), "com.example.scanner");
  model_.listHasEnded(true, "a.new\trunning\n" + std::string(kList), "", kNoon);
  EXPECT_EQ(selected(), "com.example.scanner");
  press(top_keys::kPageUp);
  EXPECT_EQ(selected(), "a.new");
}

TEST_F(TopModelTest, TheFirstSelectionSurvivesAnotherOrder) {
  model_.listHasEnded(true, "a.new\twaiting\n" + std::string(kList), "", kNoon);
  EXPECT_EQ(selected(), "com.example.agent");
  EXPECT_EQ(press('t'), (TopAction{TopAction::Kind::kAct, {"stop", "com.example.agent"}}));
}

TEST_F(TopModelTest, AServiceThatIsNotShownIsNotActedOn) {
  model_.listHasEnded(true, "a.new\twaiting\n", "", kNoon);
  EXPECT_EQ(selected(), "");
  EXPECT_EQ(press('t'), TopAction());
  EXPECT_THAT(screen(), HasSubstr("choose a service"));
  press(top_keys::kDown);
  EXPECT_EQ(press('t').arguments.back(), "a.new");
}

TEST_F(TopModelTest, AnAcceptedFilterSelectsAShownService) {
  type("/scanner\n");
  EXPECT_EQ(selected(), "com.example.scanner");
  press(top_keys::kEscape);
  EXPECT_EQ(press('t').arguments.back(), "com.example.scanner");
}

TEST_F(TopModelTest, AFilterShowsWhatHasItsText) {
  type("/sqx");
  press(top_keys::kBackspace);
  press(top_keys::kBackspace);
  type("witch off");
  EXPECT_THAT(screen(), HasSubstr("Filter: switch off_"));
  press(top_keys::kEnter);
  EXPECT_THAT(screen(), StartsWith("1 of 3 services, with \"switch off\""));
  EXPECT_EQ(press('e').arguments.back(), "com.example.filter");
  press(top_keys::kEscape);
  EXPECT_THAT(screen(), StartsWith("3 of 3 services"));
  type("/q");  // no end of the program
  EXPECT_THAT(screen(), StartsWith("0 of 3 services"));
  press(top_keys::kEnter);
  EXPECT_EQ(press('s'), TopAction());
}

TEST_F(TopModelTest, WithoutAnAnswerTheOldRowsStay) {
  model_.listHasEnded(false, "", "servicemanagerctl: nobody there\n", kNoon);
  EXPECT_THAT(screen(), HasSubstr("nobody there"));
  EXPECT_THAT(screen(), HasSubstr("com.example.agent"));
  model_.listIsLate(5s);
  EXPECT_THAT(screen(), HasSubstr("No answer for 5 s"));
  model_.listHasEnded(true, kList, "", kNoon);
  EXPECT_THAT(screen(), Not(HasSubstr("No answer")));
}

TEST_F(TopModelTest, APageIsTurnedAndClosed) {
  std::string text;
  for (int i = 0; i < 100; ++i) text += "line " + std::to_string(i) + "\n";
  model_.pageHasCome("explain com.example.agent", text);
  EXPECT_THAT(screen(), StartsWith("explain com.example.agent"));
  EXPECT_THAT(screen(), HasSubstr("line 21 "));
  EXPECT_THAT(screen(), Not(HasSubstr("line 22 ")));
  press(top_keys::kPageDown);
  EXPECT_THAT(screen(), Not(HasSubstr("line 21 ")));
  press(top_keys::kEnd);
  EXPECT_THAT(screen(), HasSubstr("line 99 "));
  press('q');
  EXPECT_THAT(screen(), StartsWith("3 of 3 services"));
}

TEST_F(TopModelTest, ANarrowScreenHasTheLabelAndBelowTheReason) {
  press(top_keys::kEnd);
  EXPECT_THAT(screen(60), HasSubstr("\ncom.example.scanner waiting            - restarts in 7 s"));
  EXPECT_THAT(screen(40), HasSubstr("\ncom.example.scanner: restarts in 7 s"));
}

TEST_F(TopModelTest, HelpNamesEachKey) {
  press('?');
  for (const char* key : {"/ ", "s ", "t ", "r ", "e ", "l ", "q "})
    EXPECT_THAT(screen(), HasSubstr("\n" + std::string(key)));
  press('?');
  EXPECT_THAT(screen(), StartsWith("3 of 3 services"));
}

TEST_F(TopModelTest, ManyServicesScroll) {
  std::string list;
  for (int i = 100; i < 200; ++i) list += "service." + std::to_string(i) + "\trunning\n";
  model_.listHasEnded(true, list, "", kNoon);
  press(top_keys::kEnd);
  EXPECT_EQ(selected(), "service.199");
  EXPECT_THAT(screen(), Not(HasSubstr("service.100 ")));
}

}  // namespace
