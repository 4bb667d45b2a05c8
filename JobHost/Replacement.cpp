#include "JobHost/Replacement.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <string>
#include <utility>

#include <sys/signalfd.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"

namespace jobhost {

using platform::Result;
using platform::UniqueFd;

namespace {

sigset_t replacementSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGHUP);
  return signals;
}

class ReplacementWatch final : public platform::RunLoopHandle {
 public:
  ReplacementWatch(platform::RunLoop& loop, UniqueFd signals, platform::RunLoop::Callback onRequest)
      : loop_(loop), signals_(std::move(signals)), onRequest_(std::move(onRequest)) {}

  Result<void> await() {
    auto source = loop_.watchReadable(signals_.get(), platform::Urgency::kOrdinary, [this] {
      signalfd_siginfo taken{};
      const bool isRequested = ::read(signals_.get(), &taken, sizeof taken) > 0;
      ReplacementWatch& self = *this;  // The source, which is replaced now, owns this function.
      static_cast<void>(await());      // There is room, because the source has just left the set.
      if (isRequested) self.onRequest_();
    });
    if (!source) return std::unexpected(std::move(source.error()));
    source_ = *std::move(source);
    return {};
  }

 private:
  platform::RunLoop& loop_;
  const UniqueFd signals_;
  platform::RunLoop::Callback onRequest_;
  std::unique_ptr<platform::RunLoopHandle> source_;
};

}  // namespace

ReplacementRequests::ReplacementRequests() {
  const sigset_t signals = replacementSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

Result<std::unique_ptr<platform::RunLoopHandle>> ReplacementRequests::watch(
    platform::RunLoop& loop, platform::RunLoop::Callback onRequest) const {
  const sigset_t signals = replacementSignals();
  UniqueFd descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!descriptor) return std::unexpected(platform::systemError("watching SIGHUP"));
  auto watch =
      std::make_unique<ReplacementWatch>(loop, std::move(descriptor), std::move(onRequest));
  if (auto awaited = watch->await(); !awaited) return std::unexpected(std::move(awaited.error()));
  return watch;
}

platform::Error replaceProgram(std::uint64_t descriptorLimit) {
  const auto path = platform::runningExecutablePath();
  if (!path) return path.error();
  const std::uint64_t limit = platform::softDescriptorLimit();
  platform::restoreDescriptorLimit(descriptorLimit);
  std::string program = *path;
  const std::array<char*, 2> arguments{program.data(), nullptr};
  ::execv(program.c_str(), arguments.data());
  auto error = platform::systemError("replacing the job host by " + program);
  platform::restoreDescriptorLimit(limit);
  return error;
}

}  // namespace jobhost
