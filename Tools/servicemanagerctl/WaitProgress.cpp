#include "Tools/servicemanagerctl/WaitProgress.h"

#include <chrono>
#include <utility>

#include <fmt/format.h>

namespace {

constexpr char kClearLine[] = "\r\033[K";

}  // namespace

WaitProgress::Wait WaitProgress::removalOf(const std::string& label, std::int64_t exitTimeOut) {
  return {.what = label + " to end",
          .note = exitTimeOut > 0 ? fmt::format("killed after {} s", exitTimeOut) : std::string()};
}

WaitProgress::WaitProgress(platform::RunLoop& loop, Wait wait, Reader reader, Write write)
    : wait_(std::move(wait)),
      reader_(reader),
      write_(std::move(write)),
      timer_(loop.startTimer(std::chrono::seconds(1), platform::RunLoop::Repeat::kEvery,
                             [this] { tell(); })) {}

WaitProgress::~WaitProgress() {
  if (reader_ == Reader::kTerminal && seconds_ > 0) write_(kClearLine);
}

void WaitProgress::tell() {
  ++seconds_;
  if (reader_ != Reader::kTerminal && seconds_ > 1) return;
  std::string text = fmt::format("Waiting for {}, {} s so far", escaped(wait_.what), seconds_);
  if (!wait_.note.empty()) text += fmt::format(" ({})", wait_.note);
  write_(reader_ == Reader::kTerminal ? kClearLine + text : text + "\n");
}
