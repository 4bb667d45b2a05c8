#include "Tools/servicemanagerctl/WaitProgress.h"

#include <chrono>
#include <optional>

#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace {

using namespace std::chrono_literals;

class WaitProgressTest : public testing::Test {
 protected:
  void begin(Reader reader, std::int64_t exitTimeOut = 20) {
    progress_.emplace(loop_, WaitProgress::removalOf("agent", exitTimeOut), reader,
                      [this](const std::string& text) { written_ += text; });
  }

  platform::VirtualRunLoop loop_;
  std::string written_;
  std::optional<WaitProgress> progress_;
};

TEST_F(WaitProgressTest, AShortRemovalPrintsNothing) {
  begin(Reader::kTerminal);
  loop_.advanceBy(1s - 1ns);
  progress_.reset();
  EXPECT_EQ(written_, "");
}

TEST_F(WaitProgressTest, AtATerminalOneLineChangesAndDisappears) {
  begin(Reader::kTerminal);
  loop_.advanceBy(2s);
  progress_.reset();
  EXPECT_EQ(written_,
            "\r\033[KWaiting for agent to end, 1 s so far (killed after 20 s)"
            "\r\033[KWaiting for agent to end, 2 s so far (killed after 20 s)"
            "\r\033[K");
}

TEST_F(WaitProgressTest, ElsewhereOneLineIsEnough) {
  begin(Reader::kOther);
  loop_.advanceBy(1h);
  progress_.reset();
  EXPECT_EQ(written_, "Waiting for agent to end, 1 s so far (killed after 20 s)\n");
}

TEST_F(WaitProgressTest, AJobThatIsNeverKilledHasNoNote) {
  begin(Reader::kOther, 0);
  loop_.advanceBy(1s);
  EXPECT_EQ(written_, "Waiting for agent to end, 1 s so far\n");
}

}  // namespace
