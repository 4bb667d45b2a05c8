#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Platform/RunLoops/RunLoop.h"
#include "Tools/servicemanagerctl/Output.h"

// Reports a wait that takes longer than a second: at a terminal each second, on one line that
// disappears at the end, elsewhere once.
class WaitProgress {
 public:
  using Write = std::function<void(const std::string& text)>;

  struct Wait {
    std::string what;       // "com.example.agent to end", after "Waiting for"
    std::string note = {};  // "killed after 20 s", shown in parentheses
  };

  // The end of a job. Its processes are killed after `exitTimeOut` seconds; 0 means never.
  static Wait removalOf(const std::string& label, std::int64_t exitTimeOut);

  // The loop outlives this.
  WaitProgress(platform::RunLoop& loop, Wait wait, Reader reader, Write write);
  WaitProgress(const WaitProgress&) = delete;
  WaitProgress& operator=(const WaitProgress&) = delete;
  ~WaitProgress();

 private:
  void tell();

  const Wait wait_;
  const Reader reader_;
  const Write write_;
  std::int64_t seconds_ = 0;
  std::unique_ptr<platform::RunLoopHandle> timer_;
};
