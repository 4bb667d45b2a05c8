#pragma once

#include <chrono>
#include <utility>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// The folder ".births" in a folder of names: sockets are bound there before they get their names.
// Only the owner of the folder of names and root can enter it, so nobody else can connect to a
// socket that is not ready, hold the lock, or put a file in our way.
class SocketBirths {
 public:
  static constexpr Duration kLockWait = std::chrono::seconds(1);

  // Makes the folder if it is missing, and locks it. Then it removes the sockets that killed
  // processes have left. Blocks for at most `wait` while another process has the lock. Fails with
  // kDenied if another user owns the folder or may enter it, or if another file has its name.
  static Result<SocketBirths> enter(const UniqueFd& namesFolder, Duration wait = kLockWait);

  const UniqueFd& folder() const { return folder_; }

  // Lets other processes in. The folder stays open.
  UniqueFd leave();

 private:
  explicit SocketBirths(UniqueFd folder) : folder_(std::move(folder)) {}

  Result<void> check(const UniqueFd& namesFolder) const;
  Result<void> lock(Duration wait) const;
  void removeLeftovers() const;

  UniqueFd folder_;
};

}  // namespace platform
