#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

// Something that has happened to the daemon, for an operator who follows it.
struct OperatorEvent {
  enum class Kind {
    kService,     // its process runs and is watched, or has ended
    kSettings,    // a settings server has announced a change
    kMode,        // the operating mode has changed
    kInstaller,   // an installer has begun or ended
    kExtension,   // the start of an extension has succeeded or failed
    kEvaluation,  // another result for a feature service: its switches ask for it, or do not
  };
  Kind kind;
  std::string subject = {};    // the label, the setting's key or the extension's name
  std::int64_t number = 0;     // the process, 0 if it has ended; the mode; or a boolean
  std::string_view step = {};  // at which the start of an extension failed; empty if it did not
  platform::WallTime time = {};
};

// The facts of an event (OperatorFacts.h).
platform::Value factsOf(const OperatorEvent& event);

// The latest events. The main thread adds them, and the operator's thread answers clients from
// them. There is one log for all clients, and each asks for what follows the last number it knows,
// so a client that does not ask costs nothing. The numbers count from the microsecond of the
// daemon's start, so a number of another run is recognised.
class OperatorEvents {
 public:
  static constexpr std::size_t kMost = 4'096;
  static constexpr std::size_t kMostTextBytes = 256;  // of a subject; others choose keys

  explicit OperatorEvents(platform::WallTime began = {});

  // A subject as add() keeps it.
  static std::string shortened(std::string text);

  // Main thread.
  void add(OperatorEvent event);

  // Any thread.

  std::int64_t last() const;  // the number of the last event, or the one before the first
  // The answer to "eventsAfter:", with `most` events at most. All events follow a number of another
  // run. The answer tells how many of the events that follow are gone.
  platform::Value after(std::int64_t number, std::size_t most) const;
  // Calls `added` once, with the next event, on the main thread. Replaces the previous callback.
  void whenAdded(platform::RunLoop::Callback added);

 private:
  struct Part {
    std::int64_t missed;
    std::int64_t last;  // the number of the last event of this part
    std::vector<OperatorEvent> events;
  };
  Part copyAfter(std::int64_t number, std::size_t most) const;

  mutable std::mutex mutex_;
  std::deque<OperatorEvent> events_;
  const std::int64_t first_;  // the number before the first event
  std::int64_t last_ = first_;
  platform::RunLoop::Callback added_;
};
