// The files in Library/LaunchDaemons, at the first host of a boot and at the next ones.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Value;
using testing::ElementsAre;
using testing::IsEmpty;

class JobHostDaemons : public JobHostTest {
 protected:
  JobHostDaemons() { killHost(); }

  static constexpr char kLabel[] = "com.example.a";
  inline static const std::string kFolder = "Library/LaunchDaemons/";

  static std::string plist(const std::string& label, const std::string& more) {
    return daemonFile(label, "<key>RunAtLoad</key><true/>" + more);
  }
  static std::string once(const std::string& label) { return plist(label, ""); }
  static std::string kept(const std::string& label) { return plist(label, kKeepAlive); }

  // The file of the daemon kLabel.
  void put(const std::string& contents) { root_.write(kFolder + "a.plist", contents); }
  void takeAway() { ASSERT_EQ(::unlink(root_.path(kFolder + "a.plist").c_str()), 0); }

  void removeDaemon() {
    const Answer answer = removeLater(kLabel);
    ASSERT_TRUE(*answer);
    ASSERT_TRUE(**answer);
  }
  // Stops the host and starts it again, as an administrator does.
  void stopAndStartHost() {
    bool isStopped = false;
    host_->shutDown([&] { isStopped = true; });
    loop_.runReady();
    ASSERT_TRUE(isStopped);
    restartHost();
  }
};

TEST_F(JobHostDaemons, FilesOfTheDaemonFolderAreLoadedAndTheOthersLogged) {
  killHost();
  root_.write(kFolder + "a.plist", kept("com.example.a"));
  root_.write(kFolder + "b.plist", kept("com.example.a"));
  root_.write(kFolder + "c.plist", "no property list");
  root_.write(kFolder + "d.plist", "<plist version=\"1.0\"><dict/></plist>");
  root_.write(kFolder + "e.text", kept("com.example.e"));
  ASSERT_EQ(::chmod(root_.write(kFolder + "f.plist", kept("com.example.f")).c_str(), 0666), 0);
  ASSERT_EQ(::symlink("a.plist", root_.path(kFolder + "g.plist").c_str()), 0);
  root_.write(kFolder + "h.plist", kept("com.example.h"));
  startHost();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.h"));
  EXPECT_EQ(starts(), 2);
  for (const char* file : {"b.plist", "c.plist", "d.plist", "f.plist", "g.plist"}) {
    EXPECT_EQ(sink_.count(file), 1) << file;
  }
}

TEST_F(JobHostDaemons, ARefusalNamesTheFile) {
  put(plist(kLabel, "<key>UserName</key><string>no-such-user</string>"));
  startHost();
  EXPECT_EQ(
      sink_.count(root_.path(kFolder + "a.plist") + ": job \"com.example.a\": key \"UserName\""),
      1);
}

TEST_F(JobHostDaemons, AnAdviceWithoutEffectIsLoggedOnce) {
  put(plist(kLabel, "<key>TimeOut</key><integer>5</integer>"));
  for (int i = 0; i < 3; ++i) {
    startHost();
    killHost();
  }
  startHost();
  EXPECT_EQ(sink_.count("job \"com.example.a\": key \"TimeOut\": it has no effect"), 1);
}

TEST_F(JobHostDaemons, ADaemonThatRanOnceIsNotStartedByTheNextHost) {
  put(once(kLabel));
  startHost();
  loop_.advanceBy(1min);
  endLast();
  for (int i = 0; i < 3; ++i) {
    restartHost();
    loop_.advanceBy(1min);
    EXPECT_EQ(starts(), 1);
    EXPECT_EQ(host_->copy(kLabel)["LastExitStatus"], Value(0));
  }
}

TEST_F(JobHostDaemons, ARemovedDaemonIsNotLoadedByTheNextHosts) {
  put(once(kLabel));
  root_.write(kFolder + "b.plist", kept("com.example.b"));
  startHost();
  removeDaemon();
  for (int i = 0; i < 3; ++i) {  // First as appended, then as compacted.
    restartHost();
    loop_.advanceBy(1min);
    EXPECT_THAT(host_->labels(), ElementsAre("com.example.b"));
  }
  EXPECT_EQ(starts(), 2);
  EXPECT_EQ(sink_.count("job \"com.example.a\": its file is not loaded"), 3);
}

TEST_F(JobHostDaemons, ADaemonsRemovalFinishedByTheNextHostIsPermanent) {
  put(kept(kLabel));
  startHost();
  processes_.obeysTermination = false;
  removeLater(kLabel);
  restartHost();
  EXPECT_THAT(host_->labels(), ElementsAre(kLabel));
  restartHost();  // From the compacted file.
  endLast();
  EXPECT_THAT(host_->labels(), IsEmpty());
  EXPECT_EQ(starts(), 1);
}

TEST_F(JobHostDaemons, ANewBootLoadsEveryDaemonAgain) {
  put(once(kLabel));
  root_.write(kFolder + "b.plist", once("com.example.b"));
  startHost();
  removeDaemon();
  killHost();
  processes_.hidesMarks = true;
  bootId_.front() = '2';
  startHost();
  EXPECT_THAT(host_->labels(), ElementsAre(kLabel, "com.example.b"));
  EXPECT_EQ(starts(), 4);
}

TEST_F(JobHostDaemons, AHostThatWasStoppedLoadsEveryDaemonAgain) {
  put(once(kLabel));
  root_.write(kFolder + "b.plist", once("com.example.b"));
  startHost();
  removeDaemon();
  stopAndStartHost();
  EXPECT_THAT(host_->labels(), ElementsAre(kLabel, "com.example.b"));
  EXPECT_EQ(starts(), 4);
}

TEST_F(JobHostDaemons, AHostKilledWhileStoppingLoadsItsDaemonsAgain) {
  put(once(kLabel));
  startHost();
  processes_.obeysTermination = false;
  host_->shutDown([] {});
  killHost();
  processes_.end(101);
  startHost();
  loop_.advanceBy(10s);
  EXPECT_EQ(pid(kLabel), Value(102));
}

TEST_F(JobHostDaemons, AChangedFileReplacesTheDefinitionForTheNextStartOnly) {
  put(kept(kLabel));
  startHost();
  loop_.advanceBy(1min);
  killHost();
  put(plist(kLabel, "<key>KeepAlive</key><true/><key>Nice</key><integer>3</integer>"));
  startHost();
  EXPECT_EQ(starts(), 1);
  EXPECT_EQ(pid(kLabel), Value(101));
  EXPECT_EQ(host_->copy(kLabel)["Nice"], Value(3));
  restartHost();
  EXPECT_EQ(host_->copy(kLabel)["Nice"], Value(3));
  EXPECT_EQ(starts(), 1);
}

TEST_F(JobHostDaemons, AFileWithAnUnknownUserChangesNoDefinition) {
  put(kept(kLabel));
  startHost();
  killHost();
  put(plist(kLabel, "<key>UserName</key><string>no-such-user</string>"));
  startHost();
  EXPECT_EQ(pid(kLabel), Value(101));
  EXPECT_EQ(host_->copy(kLabel)["KeepAlive"], Value(true));
  const auto errors = sink_.messagesAtLevel(platform::ASL_LEVEL_ERR);
  ASSERT_EQ(errors.size(), 1);
  EXPECT_THAT(errors[0].text, testing::HasSubstr("no-such-user"));
}

TEST_F(JobHostDaemons, AnEndWithoutAHostIsJudgedByTheChangedFile) {
  put(once(kLabel));
  startHost();
  loop_.advanceBy(1min);
  killHost();
  processes_.end(101);
  put(kept(kLabel));
  startHost();
  EXPECT_EQ(pid(kLabel), Value(102));
}

TEST_F(JobHostDaemons, AFileAddedSinceTheLastHostIsLoaded) {
  startHost();
  killHost();
  put(once(kLabel));
  startHost();
  EXPECT_EQ(pid(kLabel), Value(101));
}

TEST_F(JobHostDaemons, ADeletedFileRemovesNoJob) {
  put(kept(kLabel));
  startHost();
  killHost();
  takeAway();
  startHost();
  EXPECT_EQ(pid(kLabel), Value(101));
}

TEST_F(JobHostDaemons, AFileThatIsDeletedAndComesBackIsNew) {
  put(once(kLabel));
  startHost();
  removeDaemon();
  killHost();
  takeAway();
  restartHost();
  killHost();
  put(once(kLabel));
  startHost();
  EXPECT_EQ(pid(kLabel), Value(102));
}

TEST_F(JobHostDaemons, ATemporarilyUnreadableFileIsNotForgotten) {
  put(once(kLabel));
  startHost();
  removeDaemon();
  killHost();
  put("half a file");
  restartHost();
  killHost();
  put(once(kLabel));
  startHost();
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostDaemons, AClientsJobReplacesADaemonForGood) {
  put(kept(kLabel));
  startHost();
  ASSERT_TRUE(submit(job(kLabel, {{"Nice", 5}})));
  for (int i = 0; i < 2; ++i) {
    restartHost();
    EXPECT_EQ(host_->copy(kLabel)["Nice"], Value(5));
  }
  removeDaemon();
  restartHost();
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostDaemons, AClientsJobOfARemovedDaemonsLabelIsKept) {
  put(once(kLabel));
  startHost();
  removeDaemon();
  ASSERT_TRUE(submit(job(kLabel)));
  loop_.advanceBy(10s);
  for (int i = 0; i < 3; ++i) {
    restartHost();
    EXPECT_EQ(pid(kLabel), Value(102));
  }
}

TEST_F(JobHostDaemons, AFileWithTheLabelOfAClientsJobIsNotLoaded) {
  startHost();
  ASSERT_TRUE(submit(job(kLabel, {{"Nice", 5}})));
  killHost();
  put(kept(kLabel));
  startHost();
  EXPECT_EQ(host_->copy(kLabel)["Nice"], Value(5));
  EXPECT_EQ(sink_.count("a client has submitted the job"), 1);
}

TEST_F(JobHostDaemons, AStopRequestDuringTheStartStartsNoMoreDaemons) {
  for (const char* name : {"a", "b", "c"}) {
    root_.write(kFolder + name + ".plist", kept(std::string("com.example.") + name));
  }
  isStopRequested_ = [this] { return starts() >= 2; };
  startHost();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b"));
  isStopRequested_ = nullptr;
  stopAndStartHost();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b", "com.example.c"));
  EXPECT_EQ(starts(), 5);
}

TEST_F(JobHostDaemons, AStopRequestDuringTheStartRestartsNoJob) {
  put(kept(kLabel));
  startHost();
  ASSERT_TRUE(submit(job("com.example.submitted")));
  loop_.advanceBy(1min);
  killHost();
  processes_.end(101);
  isStopRequested_ = [] { return true; };
  startHost();
  EXPECT_EQ(pid(kLabel), Value());
  EXPECT_EQ(pid("com.example.submitted"), Value(102));  // It runs until it is stopped.
  // If it is killed before it has ended a job, the next host still knows all jobs.
  isStopRequested_ = nullptr;
  restartHost();
  EXPECT_EQ(pid(kLabel), Value(103));
  EXPECT_EQ(pid("com.example.submitted"), Value(102));
}

}  // namespace
}  // namespace jobhost
