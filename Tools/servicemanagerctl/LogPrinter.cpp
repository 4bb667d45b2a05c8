#include "Tools/servicemanagerctl/LogPrinter.h"

#include <chrono>
#include <string>
#include <utility>

#include "Tools/servicemanagerctl/Output.h"

namespace {

constexpr auto kPrintInterval = std::chrono::milliseconds(100);

}  // namespace

LogPrinter::LogPrinter(LabelLog log) : log_(std::move(log)) {
  if (const auto before = log_.read(1); !before) {
    remark("the log is not shown: " + platform::describe(before.error()));
    return;
  }
  thread_ = std::thread([this] { run(); });
}

LogPrinter::~LogPrinter() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  ended_.notify_one();
  thread_.join();
  printNew();
}

void LogPrinter::run() {
  std::unique_lock lock(mutex_);
  while (!ended_.wait_for(lock, kPrintInterval, [this] { return isEnding_; })) {
    if (!printNew()) return;
  }
}

bool LogPrinter::printNew() {
  const auto entries = log_.readNew();
  if (!entries) return false;
  std::string text;
  for (const LogEntry& entry : *entries) text += asText(entry);
  if (!text.empty()) warn(text);
  return true;
}
