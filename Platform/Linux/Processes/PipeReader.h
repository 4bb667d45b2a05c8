#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "Platform/Linux/Processes/PipeHandle.h"

namespace platform {

// A thread that calls the readability handlers of a task's handles.
class PipeReader {
 public:
  // Starts at once, with those handles that have a handler. The handles outlive it. Fails if the
  // system has no thread or no descriptor left.
  static Result<std::unique_ptr<PipeReader>> start(std::vector<PipeHandle*> handles);
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;
  // Blocks until a running handler returns.
  ~PipeReader();

 private:
  explicit PipeReader(UniqueFd stop) : stop_(std::move(stop)) {}

  void run(std::vector<PipeHandle*> handles);

  UniqueFd stop_;
  std::thread thread_;
};

}  // namespace platform
