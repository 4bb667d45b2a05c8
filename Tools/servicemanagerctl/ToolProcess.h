#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

// This tool with another command in a process of its own, which the keys of the terminal do not
// end. Its output is kept up to kMostBytes. The process is killed with this object, unless detach()
// was called.
class ToolProcess {
 public:
  static constexpr std::size_t kMostBytes = std::size_t{16} << 20;

  struct Outcome {
    bool hasSucceeded = false;
    std::string output;
    std::string errors;
  };
  using Ended = std::function<void(Outcome outcome)>;

  // `ended` is called once, and may destroy this.
  static platform::Result<std::unique_ptr<ToolProcess>> start(
      platform::RunLoop& loop, const std::vector<std::string>& arguments, Ended ended);
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;
  ~ToolProcess();

  // The process runs on to its end, which is not reported.
  void detach();

 private:
  struct Stream {
    platform::UniqueFd file;
    std::string text;
    std::unique_ptr<platform::RunLoopHandle> watch;
  };

  ToolProcess(platform::RunLoop& loop, Ended ended) : loop_(loop), ended_(std::move(ended)) {}
  platform::Result<void> watch(Stream& stream);
  void read(Stream& stream);
  void conclude();

  platform::RunLoop& loop_;
  Ended ended_;
  pid_t process_ = -1;
  Stream output_;
  Stream errors_;
};
