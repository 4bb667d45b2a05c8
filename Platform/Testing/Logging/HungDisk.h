#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "Platform/Logging/LogSink.h"

namespace platform {

// A disk that hangs on demand: writes to its sinks do not return meanwhile. Any thread may use it.
class HungDisk {
 public:
  // A sink that passes its messages on to `target` when the disk does not hang. Both outlive it.
  std::unique_ptr<LogSink> makeSink(LogSink& target);

  void hang();
  void goOn();

  // Returns when a write hangs.
  void awaitWriter();
  // Returns when all sinks are gone.
  void awaitRelease();

 private:
  class Sink;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool hangs_ = false;
  int writers_ = 0;
  int sinks_ = 0;
};

}  // namespace platform
