// A program is replaced and changed while it is verified and started. Whatever runs must be what
// was verified.

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/Processes/VerifiedProgram_fixture.h"

namespace jobhost {
namespace {

class ProgramRaces : public VerifiedProgramTest {
 protected:
  struct Outcomes {
    int runs = 0;
    int refusals = 0;
  };

  // Each try starts a file that was verified just before. The right program ends with status 0, the
  // attacker's with another, and a mixture of both crashes.
  Outcomes race(const std::string& right, const std::string& wrong, int tries) {
    const std::string path = make("program", right);
    const platform::Data wanted = verify(path).digest;
    std::atomic<bool> isOver = false;
    std::thread attacker([&] {
      for (unsigned step = 0; !isOver; ++step) {
        attack(path, wrong, step);
        attack(path, right, step / 2);
        // The right program stays for a while, now shorter, now longer than a verification takes.
        for (unsigned pause = step % kLongestPause; pause > 0; --pause) std::this_thread::yield();
      }
    });
    Outcomes outcomes;
    while (outcomes.runs + outcomes.refusals < tries && !HasFailure()) {
      const platform::VerifiedFile verified = verify(path, /*isSettled=*/false);
      if (verified.digest == wanted) start(jobOf(path, verified), outcomes);
    }
    isOver = true;
    attacker.join();
    RecordProperty("runs", outcomes.runs);
    return outcomes;
  }

 private:
  static constexpr unsigned kLongestPause = 400;

  void start(const JobDefinition& job, Outcomes& outcomes) {
    const auto spawned = spawn(job);
    ++(spawned ? outcomes.runs : outcomes.refusals);
    if (!spawned) return;
    const platform::ExitStatus status = awaitEnd(*spawned);
    const bool isRight = status == platform::ExitStatus{platform::ExitStatus::Kind::kExited, 0};
    EXPECT_TRUE(isRight) << "ended with " << status.number;
  }

  // Renames another file to the path, or writes into the one that is there.
  void attack(const std::string& path, const std::string& content, unsigned step) {
    if (step % 2 == 0) {
      const std::string next = make("next", content);
      EXPECT_EQ(::rename(next.c_str(), path.c_str()), 0);
      return;
    }
    const platform::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file) return;  // It runs.
    EXPECT_EQ(::ftruncate(file.get(), static_cast<off_t>(content.size())), 0);
    EXPECT_EQ(::pwrite(file.get(), content.data(), content.size(), 0),
              static_cast<ssize_t>(content.size()));
  }
};

constexpr int kTries = 500;
constexpr int kManyTries = 10'000;

TEST_F(ProgramRaces, AReplacedProgramNeverRuns) {
  const Outcomes outcomes = race(contentOf("/bin/true"), contentOf("/bin/false"), kTries);
  EXPECT_GT(outcomes.refusals, 0);
}

TEST_F(ProgramRaces, AReplacedScriptNeverRuns) {
  race("#!/bin/sh\nexit 0\n", "#!/bin/sh\nexit 9\n", kTries);
}

using ProgramRacesLong = ProgramRaces;

TEST_F(ProgramRacesLong, AReplacedProgramNeverRuns) {
  const Outcomes outcomes = race(contentOf("/bin/true"), contentOf("/bin/false"), kManyTries);
  EXPECT_GT(outcomes.refusals, 0);
}

TEST_F(ProgramRacesLong, AReplacedScriptNeverRuns) {
  race("#!/bin/sh\nexit 0\n", "#!/bin/sh\nexit 9\n", kManyTries);
}

}  // namespace
}  // namespace jobhost
