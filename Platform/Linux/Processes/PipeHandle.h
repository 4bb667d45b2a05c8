#pragma once

#include <cstddef>
#include <optional>

#include "Platform/Linux/Processes/DataAvailableNotices.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/Task.h"

namespace platform {

// A pipe for a program's output. The reading end is a file handle, the writing end goes to the
// program.
class PipeHandle final : public FileHandle {
 public:
  // The most that one call reads: the capacity of a pipe by default.
  static constexpr std::size_t kMaximumChunk = 64 * 1024;

  // Neither end is a standard file, even if this program has none. Fails with the system's error.
  // `notices` outlives it.
  static Result<std::unique_ptr<PipeHandle>> create(DataAvailableNotices& notices,
                                                    bool callsHandlers);
  PipeHandle(const PipeHandle&) = delete;
  PipeHandle& operator=(const PipeHandle&) = delete;
  ~PipeHandle() override;

  Data availableData() override;
  bool respondsToSetReadabilityHandler() const override { return callsHandlers_; }
  void setReadabilityHandler(ReadabilityHandler handler) override { handler_ = std::move(handler); }
  void waitForDataInBackgroundAndNotify() override;

  int reader() const { return reader_.get(); }
  int writer() const { return writer_.get(); }
  void closeWriter() { writer_.reset(); }

  bool hasHandler() const { return handler_ != nullptr; }
  // Calls the handler for the data that is there now.
  void callHandler();
  // Calls the handler as often as the data that is there now requires.
  void callHandlerForTheRest();

 private:
  PipeHandle(DataAvailableNotices& notices, bool callsHandlers)
      : notices_(notices), callsHandlers_(callsHandlers) {}

  std::size_t held();

  DataAvailableNotices& notices_;
  const bool callsHandlers_;
  UniqueFd reader_;
  UniqueFd writer_;
  ReadabilityHandler handler_;
  std::optional<std::size_t> left_;  // of the data that was there when reading began
  bool ended_ = false;               // availableData() has reached the end
};

}  // namespace platform
