#include "Tools/servicemanagerctl/RemovalProgress.h"

#include <chrono>
#include <utility>

#include <fmt/format.h>

namespace {

constexpr char kClearLine[] = "\r\033[K";

}  // namespace

RemovalProgress::RemovalProgress(platform::RunLoop& loop, std::string label,
                                 std::int64_t exitTimeOut, Reader reader, Write write)
    : label_(std::move(label)),
      exitTimeOut_(exitTimeOut),
      reader_(reader),
      write_(std::move(write)),
      timer_(loop.startTimer(std::chrono::seconds(1), platform::RunLoop::Repeat::kEvery,
                             [this] { tell(); })) {}

RemovalProgress::~RemovalProgress() {
  if (reader_ == Reader::kTerminal && seconds_ > 0) write_(kClearLine);
}

void RemovalProgress::tell() {
  ++seconds_;
  if (reader_ == Reader::kOther && seconds_ > 1) return;
  std::string text = fmt::format("Waiting for {} to end, {} s so far", label_, seconds_);
  if (exitTimeOut_ > 0) text += fmt::format(" (killed after {} s)", exitTimeOut_);
  write_(reader_ == Reader::kTerminal ? kClearLine + text : text + "\n");
}
