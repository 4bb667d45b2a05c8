#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// Limits the log lines that users can cause. In each minute the first lines of a user are written,
// and the others are counted. When the minute is over, one line tells the count of each user, also
// if nobody causes another line. Everything in a process that logs for its peers shares one. Any
// thread may use it.
class UserLines : public std::enable_shared_from_this<UserLines> {
 public:
  static constexpr std::size_t kLinesPerUser = 10;
  // The lines of all users together, and the users that are counted by themselves: one person may
  // have thousands of users.
  static constexpr std::size_t kLinesOfAll = 40;
  static constexpr std::size_t kUsers = 16;
  static constexpr Duration kPeriod = std::chrono::minutes(1);

  // The loop and the log outlive this.
  UserLines(std::uint32_t ownUser, RunLoop& loop, SystemLog& log, std::string ident);
  UserLines(const UserLines&) = delete;
  UserLines& operator=(const UserLines&) = delete;
  // Tells the counts.
  ~UserLines();

  // Whether a line about something that the user has asked may be written. If not, it is counted.
  // Root and our own user have no limit.
  bool mayWrite(std::uint32_t user);

  // The same for a line about a failure: of a user, also of root, or of this program itself. Other
  // users' lines leave room for those.
  bool mayWriteFailure(std::optional<std::uint32_t> user);

  // Counts lines about failures of this program that its caller has left out.
  void leaveOut(std::size_t lines);

  // Tells the counts before the minute is over, for a program that ends without destructors.
  void tellCounts();

 private:
  struct Count {
    std::size_t written = 0;
    std::size_t leftOut = 0;
  };

  bool isOrdinary(std::uint32_t key) const;
  Count& countOf(std::uint32_t key);
  void tellLater();

  const std::uint32_t ownUser_;
  RunLoop& loop_;
  SystemLog& log_;
  const AslClient client_;
  std::unique_ptr<RunLoopHandle> timer_;  // used only on the loop

  std::mutex mutex_;
  std::optional<Instant> periodStart_;
  bool willTell_ = false;
  std::size_t written_ = 0;  // about ordinary users
  std::map<std::uint32_t, Count> counts_;
};

}  // namespace platform
