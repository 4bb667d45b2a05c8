#include "Platform/Linux/Processes/LinuxTasks.h"

#include <utility>

#include "Platform/Linux/Processes/PipeHandle.h"
#include "Platform/Linux/Processes/PipeReader.h"
#include "Platform/Linux/Processes/SpawnedProcess.h"

namespace platform {
namespace {

std::unexpected<NSException> raise(std::string reason) {
  return raised(kNSInvalidArgumentException, std::move(reason));
}

class SpawnTask final : public Task {
 public:
  SpawnTask(DataAvailableNotices& notices, const LinuxTasks::Options& options)
      : notices_(notices), options_(options) {}

  const std::string& launchPath() const override { return launchPath_; }
  void setLaunchPath(std::string path) override { launchPath_ = std::move(path); }
  void setArguments(std::vector<std::string> arguments) override {
    arguments_ = std::move(arguments);
  }
  NotificationCenter& notificationCenter() override { return notices_.center(); }
  void keep(std::shared_ptr<void> object) override { kept_.push_back(std::move(object)); }

  void makePipes() override;
  TaskPipes pipes() const override { return {output_.get(), error_.get()}; }
  Result<void, NSException> launch() override;
  int waitUntilExit() override;

 private:
  Result<std::unique_ptr<PipeHandle>> makePipe() {
    return PipeHandle::create(notices_, options_.callsReadabilityHandlers);
  }
  bool hasHandlers() const { return output_ && (output_->hasHandler() || error_->hasHandler()); }
  std::optional<SpawnedProcess::Outputs> outputs() const {
    if (!output_) return std::nullopt;
    return SpawnedProcess::Outputs{output_->writer(), error_->writer()};
  }

  DataAvailableNotices& notices_;
  const LinuxTasks::Options options_;
  std::string launchPath_;
  std::vector<std::string> arguments_;
  std::string missing_;  // the reason that launch() raises
  std::unique_ptr<PipeHandle> output_;
  std::unique_ptr<PipeHandle> error_;
  std::vector<std::shared_ptr<void>> kept_;  // shared with the objects that asked for them
  bool launched_ = false;
  std::optional<int> status_;
  std::unique_ptr<PipeReader> reader_;     // Destroyed before the handles,
  std::optional<SpawnedProcess> process_;  // and the program before the reader.
};

void SpawnTask::makePipes() {
  auto output = makePipe();
  auto error = makePipe();
  if (output && error) {
    output_ = std::move(*output);
    error_ = std::move(*error);
    return;
  }
  // A handle without a pipe would be useless.
  missing_ = describe(output ? error.error() : output.error());
}

Result<void, NSException> SpawnTask::launch() {
  if (launched_) return raise("task already launched");
  if (!missing_.empty()) return raise(launchPath_ + ": not launched: " + missing_);
  if (hasHandlers()) {
    auto reader = PipeReader::start({output_.get(), error_.get()});
    if (!reader) return raise(launchPath_ + ": not launched: " + describe(reader.error()));
    reader_ = std::move(*reader);
  }
  auto process =
      SpawnedProcess::spawn(launchPath_, arguments_, outputs(), options_.descriptorLimit);
  if (!process) {
    reader_.reset();
    if (process.error().code == ErrorCode::kInvalid) return raise("launch path not accessible");
    return raise(describe(process.error()));
  }
  launched_ = true;
  process_.emplace(std::move(*process));
  if (output_) {
    // From now on only the program's copies keep the pipes open.
    output_->closeWriter();
    error_->closeWriter();
  }
  return {};
}

int SpawnTask::waitUntilExit() {
  if (process_) {
    notices_.postUntilReadable(process_->descriptor());
    status_ = process_->reap();
    process_.reset();
    reader_.reset();
    for (PipeHandle* handle : {output_.get(), error_.get()}) {
      if (handle && handle->hasHandler()) handle->callHandlerForTheRest();
    }
  }
  return status_.value_or(-1);
}

}  // namespace

std::unique_ptr<Task> LinuxTasks::newTask() {
  return std::make_unique<SpawnTask>(notices_, options_);
}

}  // namespace platform
