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

// A file handle to which a test adds chunks of data.
class FakeFileHandle final : public FileHandle {
 public:
  FakeFileHandle(NotificationCenter& center, bool callsHandlers)
      : center_(center), callsHandlers_(callsHandlers) {}

  // Adds a chunk and notifies a waiting reader.
  void deliver(std::string_view chunk);
  // Adds a chunk without a notice.
  void hold(std::string_view chunk) { chunks_.emplace_back(chunk.begin(), chunk.end()); }
  // Calls the handler for all chunks.
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

// Programs with a scripted behaviour. Any other path is not accessible.
class FakeTasks final : public Tasks {
 public:
  enum class Stream { kOutput, kError };
  struct Chunk {
    Stream stream;
    std::string text;
  };
  struct Program {
    std::vector<Chunk> whileRunning;
    std::vector<Chunk> atItsEnd;  // the content of the pipes at its end
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
  // From now on no pipe can be made.
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
