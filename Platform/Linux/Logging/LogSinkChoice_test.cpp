#include "Platform/Linux/Logging/LogSinkChoice.h"

#include <filesystem>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Testing/Logging/LogReceiver.h"

namespace platform {
namespace {

using Choice = PlatformConfiguration::LogSink;

class LogSinkChoiceTest : public testing::Test {
 protected:
  Choice chosen(const std::string& root) { return chooseLogSink(root, sockets_); }

  template <typename Sink>
  bool makes(Choice choice) {
    const auto sink = makeLogSink(folder_.path("root"), choice, sockets_);
    return sink && dynamic_cast<Sink*>(sink->get()) != nullptr;
  }

  TemporaryLogFolder folder_;
  const LogSockets sockets_{.journal = folder_.path("journal"), .syslog = folder_.path("syslog")};
};

TEST_F(LogSinkChoiceTest, TheJournalComesBeforeTheClassicLogBeforeTheFile) {
  EXPECT_EQ(chosen("/"), Choice::kFile);
  LogReceiver syslog(sockets_.syslog);
  EXPECT_EQ(chosen("/"), Choice::kSyslog);
  LogReceiver journal(sockets_.journal);
  EXPECT_EQ(chosen("/"), Choice::kJournal);
}

TEST_F(LogSinkChoiceTest, ASocketWithoutAListenerDoesNotCount) {
  {
    LogReceiver killed(sockets_.journal);
  }
  LogReceiver syslog(sockets_.syslog);
  EXPECT_EQ(chosen("/"), Choice::kSyslog);
}

TEST_F(LogSinkChoiceTest, AnotherRootAlwaysHasItsFile) {
  LogReceiver journal(sockets_.journal);
  EXPECT_EQ(chosen(folder_.path("root")), Choice::kFile);
}

TEST_F(LogSinkChoiceTest, TheFileLiesBelowTheRoot) {
  const std::string root = folder_.path("root");
  std::filesystem::create_directory(root);
  auto sink = makeLogSink(root, Choice::kFile, sockets_);
  ASSERT_TRUE(sink);
  ASSERT_TRUE((*sink)->write({"i", "f", ASL_LEVEL_ERR, "text"}));
  EXPECT_TRUE(std::filesystem::is_regular_file(root + "/log/system.log"));
}

TEST_F(LogSinkChoiceTest, TheMachinesRootHasItsLogBelowVar) {
  EXPECT_EQ(logFile("/"), "/var/log/vantor/system.log");
  EXPECT_EQ(logFile("/srv/demo"), "/srv/demo/log/system.log");
}

TEST_F(LogSinkChoiceTest, AChoiceHoldsWhileItsReceiverIsMissing) {
  EXPECT_TRUE(makes<JournalLogSink>(Choice::kJournal));
  EXPECT_TRUE(makes<SyslogLogSink>(Choice::kSyslog));
  LogReceiver journal(sockets_.journal);
  EXPECT_TRUE(makes<FileLogSink>(Choice::kFile));
}

}  // namespace
}  // namespace platform
