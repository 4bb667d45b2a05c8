#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Time.h"

// Limits the requests of users to start and stop services and to evaluate them. Each causes work
// for the whole product and many lines, so one user could flush the log's history with them. Root
// and our own user have no limit. Belongs to the main thread.
class ChangeRequests {
 public:
  // In a minute that starts with a request: of one user, and of all users together.
  static constexpr std::size_t kOfUser = 20;
  static constexpr std::size_t kOfAll = 160;
  static constexpr platform::Duration kPeriod = std::chrono::minutes(1);

  // Whether a line about a request of the user may be written.
  using MayLog = std::function<bool(std::uint32_t user)>;

  // The loop outlives this.
  ChangeRequests(platform::RunLoop& loop, std::uint32_t ownUser, MayLog mayLog);

  // Counts a request of the user. An exception if there have been too many.
  std::optional<platform::NSException> refusalOf(std::uint32_t user);
  // The same for the request that this thread serves.
  std::optional<platform::NSException> refusal();

  // For a request that must not be lost: counts it and calls `change` at once. If there have been
  // too many, one call of all of them comes when their minute is over.
  void performOf(std::uint32_t user, platform::RunLoop::Callback change);
  // The same for the request that this thread serves.
  void perform(platform::RunLoop::Callback change);
  // Drops the call that waits for the end of the minute.
  void forgetDelayed() { delayed_.reset(); }

 private:
  bool count(std::uint32_t user);

  platform::RunLoop& loop_;
  const std::uint32_t ownUser_;
  const MayLog mayLog_;
  std::optional<platform::Instant> periodStart_;
  std::size_t ofAll_ = 0;
  std::map<std::uint32_t, std::size_t> ofUsers_;
  std::unique_ptr<platform::RunLoopHandle> delayed_;
};
