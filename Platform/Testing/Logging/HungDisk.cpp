#include "Platform/Testing/Logging/HungDisk.h"

namespace platform {

class HungDisk::Sink final : public LogSink {
 public:
  Sink(HungDisk& disk, LogSink& target) : disk_(disk), target_(target) {
    const std::lock_guard lock(disk_.mutex_);
    ++disk_.sinks_;
  }
  ~Sink() override {
    const std::lock_guard lock(disk_.mutex_);
    --disk_.sinks_;
    disk_.changed_.notify_all();
  }

  Result<void> write(const LogRecord& record) override {
    {
      std::unique_lock lock(disk_.mutex_);
      ++disk_.writers_;
      disk_.changed_.notify_all();
      disk_.changed_.wait(lock, [&] { return !disk_.hangs_; });
      --disk_.writers_;
    }
    return target_.write(record);
  }

 private:
  HungDisk& disk_;
  LogSink& target_;
};

std::unique_ptr<LogSink> HungDisk::makeSink(LogSink& target) {
  return std::make_unique<Sink>(*this, target);
}

void HungDisk::hang() {
  const std::lock_guard lock(mutex_);
  hangs_ = true;
}

void HungDisk::goOn() {
  const std::lock_guard lock(mutex_);
  hangs_ = false;
  changed_.notify_all();
}

void HungDisk::awaitWriter() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return hangs_ && writers_ > 0; });
}

void HungDisk::awaitRelease() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return sinks_ == 0; });
}

}  // namespace platform
