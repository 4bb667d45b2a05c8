#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Processes/Task.h"

namespace platform {

// A file handle on which a test lays what is to be read, chunk by chunk.
class FakeFileHandle final : public FileHandle {
 public:
  FakeFileHandle(NotificationCenter& center, bool callsHandlers)
      : center_(center), callsHandlers_(callsHandlers) {}

  // One more chunk; whoever waits for it is told.
  void deliver(std::string_view chunk);
  // One more chunk of which nobody is told.
  void hold(std::string_view chunk) { chunks_.emplace_back(chunk.begin(), chunk.end()); }
  // Calls the handler for all that is held.
  void callHandler();

  bool hasHandler() const { return handler_ != nullptr; }
  bool isWaitedFor() const { return waitedFor_; }
  std::size_t chunksHeld() const { return chunks_.size(); }

  Data availableData() override;
  bool respondsToSetReadabilityHandler() const override { return callsHandlers_; }
  void setReadabilityHandler(ReadabilityHandler handler) override { handler_ = std::move(handler); }
  void waitForDataInBackgroundAndNotify() override { waitedFor_ = true; }

 private:
  NotificationCenter& center_;
  const bool callsHandlers_;
  std::deque<Data> chunks_;
  ReadabilityHandler handler_;
  bool waitedFor_ = false;
};

// Programs that a test describes. Any other path is not accessible.
class FakeTasks final : public Tasks {
 public:
  enum class Stream { kOutput, kError };
  struct Chunk {
    Stream stream;
    std::string text;
  };
  struct Program {
    std::vector<Chunk> whileRunning;
    std::vector<Chunk> atItsEnd;  // what the pipes hold when it has ended
    int status = 0;
    std::optional<NSException> raised = std::nullopt;  // by the launch
    std::function<void()> run = nullptr;               // after `whileRunning`
  };
  struct Launch {
    std::string path;
    std::vector<std::string> arguments;
  };

  // `center` outlives this and its tasks.
  FakeTasks(NotificationCenter& center, bool callsReadabilityHandlers)
      : center_(center), callsHandlers_(callsReadabilityHandlers) {}

  void setProgram(std::string path, Program program) {
    programs_[std::move(path)] = std::move(program);
  }
  // No pipe can be made from now on.
  void setWithoutPipes() { withoutPipes_ = true; }

  const std::vector<Launch>& launches() const { return launches_; }

  std::unique_ptr<Task> newTask() override;

 private:
  class FakeTask;

  NotificationCenter& center_;
  const bool callsHandlers_;
  bool withoutPipes_ = false;
  std::map<std::string, Program> programs_;
  std::vector<Launch> launches_;
};

}  // namespace platform
