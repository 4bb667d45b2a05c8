#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "Platform/Linux/Processes/PipeHandle.h"

namespace platform {

// A thread that calls the readability handlers of a task's handles.
class PipeReader {
 public:
  // Starts at once with those of the handles that have a handler. They outlive it. Fails where the
  // system has no thread or no descriptor left.
  static Result<std::unique_ptr<PipeReader>> start(std::vector<PipeHandle*> handles);
  PipeReader(const PipeReader&) = delete;
  PipeReader& operator=(const PipeReader&) = delete;
  // Ends with the call of a handler that is under way.
  ~PipeReader();

 private:
  explicit PipeReader(UniqueFd stop) : stop_(std::move(stop)) {}

  void run(std::vector<PipeHandle*> handles);

  UniqueFd stop_;
  std::thread thread_;
};

}  // namespace platform
