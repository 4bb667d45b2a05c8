#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Platform/RunLoop.h"
#include "Tools/servicemanagerctl/Output.h"

// Tells that a removal is under way as soon as it has taken a second: at a terminal each second, on
// one line that goes away in the end, elsewhere once.
class RemovalProgress {
 public:
  using Write = std::function<void(const std::string& text)>;

  // `exitTimeOut` is when the job's processes are killed, in seconds; 0 for never. The loop
  // outlives this.
  RemovalProgress(platform::RunLoop& loop, std::string label, std::int64_t exitTimeOut,
                  Reader reader, Write write);
  RemovalProgress(const RemovalProgress&) = delete;
  RemovalProgress& operator=(const RemovalProgress&) = delete;
  ~RemovalProgress();

 private:
  void tell();

  const std::string label_;
  const std::int64_t exitTimeOut_;
  const Reader reader_;
  const Write write_;
  std::int64_t seconds_ = 0;
  std::unique_ptr<platform::RunLoopHandle> timer_;
};
