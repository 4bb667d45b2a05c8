#include "Platform/Testing/Processes/FakeTasks.h"

#include <utility>

namespace platform {

void FakeFileHandle::deliver(std::string_view chunk) {
  hold(chunk);
  if (handler_) {
    callHandler();
  } else if (std::exchange(waitedFor_, false)) {
    center_.post({NSFileHandleDataAvailableNotification, static_cast<FileHandle*>(this)});
  }
}

void FakeFileHandle::callHandler() {
  // The calls are counted, because a handler need not read.
  for (std::size_t left = chunks_.size(); left > 0; --left) handler_(*this);
}

Data FakeFileHandle::availableData() {
  if (chunks_.empty()) return {};
  Data chunk = std::move(chunks_.front());
  chunks_.pop_front();
  return chunk;
}

class FakeTasks::FakeTask final : public Task {
 public:
  explicit FakeTask(FakeTasks& tasks) : tasks_(tasks) {}

  const std::string& launchPath() const override { return launchPath_; }
  void setLaunchPath(std::string path) override { launchPath_ = std::move(path); }
  void setArguments(std::vector<std::string> arguments) override {
    arguments_ = std::move(arguments);
  }
  void makePipes() override {
    if (tasks_.withoutPipes_) return;
    output_ = std::make_unique<FakeFileHandle>(tasks_.center_, tasks_.callsHandlers_);
    error_ = std::make_unique<FakeFileHandle>(tasks_.center_, tasks_.callsHandlers_);
  }
  TaskPipes pipes() const override { return {output_.get(), error_.get()}; }
  NotificationCenter& notificationCenter() override { return tasks_.center_; }
  void keep(std::shared_ptr<void> object) override { kept_.push_back(std::move(object)); }

  Result<void, NSException> launch() override {
    if (launched_) return raise("task already launched");
    if (tasks_.withoutPipes_) return raise(launchPath_ + ": not launched: a pipe");
    const auto program = tasks_.programs_.find(launchPath_);
    if (program == tasks_.programs_.end()) return raise("launch path not accessible");
    if (program->second.raised) return std::unexpected(*program->second.raised);
    tasks_.launches_.push_back({launchPath_, arguments_});
    program_ = program->second;
    launched_ = true;
    return {};
  }

  int waitUntilExit() override {
    if (program_) {
      const Program program = *std::exchange(program_, std::nullopt);
      for (const Chunk& chunk : program.whileRunning) {
        if (FakeFileHandle* const handle = handleOf(chunk)) handle->deliver(chunk.text);
      }
      if (program.run) program.run();
      for (const Chunk& chunk : program.atItsEnd) {
        if (FakeFileHandle* const handle = handleOf(chunk)) handle->hold(chunk.text);
      }
      for (FakeFileHandle* handle : {output_.get(), error_.get()}) {
        if (handle && handle->hasHandler()) handle->callHandler();
      }
      status_ = program.status;
    }
    return status_;
  }

 private:
  static std::unexpected<NSException> raise(std::string reason) {
    return raised(kNSInvalidArgumentException, std::move(reason));
  }
  FakeFileHandle* handleOf(const Chunk& chunk) const {
    return chunk.stream == Stream::kOutput ? output_.get() : error_.get();
  }

  FakeTasks& tasks_;
  std::string launchPath_;
  std::vector<std::string> arguments_;
  std::unique_ptr<FakeFileHandle> output_;
  std::unique_ptr<FakeFileHandle> error_;
  std::vector<std::shared_ptr<void>> kept_;  // shared with the objects that asked for them
  std::optional<Program> program_;
  bool launched_ = false;
  int status_ = -1;
};

std::unique_ptr<Task> FakeTasks::newTask() { return std::make_unique<FakeTask>(*this); }

}  // namespace platform
