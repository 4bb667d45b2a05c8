#include "Platform/Linux/XPC/LinuxXPC.h"

#include <system_error>
#include <tuple>
#include <utility>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"

namespace platform {

Result<std::unique_ptr<LinuxXPC>> LinuxXPC::make(SystemLog& log, ListenerPlaces places,
                                                 std::optional<PassedSocket> passed,
                                                 std::shared_ptr<PeerAccounts> accounts,
                                                 std::shared_ptr<UserLines> lines) {
  auto loop = AsioRunLoop::create();
  if (!loop) return std::unexpected(std::move(loop.error()));
  // The job host makes it, too, with its permissions. If it can't be made, only making a listener
  // without a name fails, which is logged.
  std::ignore = makeEndpointFolder(places.root());
  try {
    // The constructor may start threads of a pool.
    std::unique_ptr<LinuxXPC> made(new LinuxXPC(log, std::move(places), std::move(passed),
                                                std::move(accounts), std::move(lines),
                                                std::move(*loop)));
    made->thread_ = std::thread([loop = made->loop_.get()] { loop->run(); });
    made->loopThread_ = made->thread_.get_id();
    return made;
  } catch (const std::system_error& error) {
    return std::unexpected(Error{ErrorCode::kExhausted, error.code().value(), "a thread for XPC"});
  }
}

LinuxXPC::LinuxXPC(SystemLog& log, ListenerPlaces places, std::optional<PassedSocket> passed,
                   std::shared_ptr<PeerAccounts> accounts, std::shared_ptr<UserLines> lines,
                   std::unique_ptr<AsioRunLoop> loop)
    : places_(std::move(places)),
      loop_(std::move(loop)),
      transport_(*loop_, accounts, endpointFolder(places_.root())) {
  if (passed) {
    transport_.adopt(places_.machService(passed->machService).path, std::move(passed->server));
  }
  xpc_.emplace(XPC::Environment{
      .loop = *loop_,
      .transport = transport_,
      .log = log,
      .performOnLoop = [this](const std::function<void()>& action) { performOnLoop(action); },
      .makeQueues = [] { return std::make_unique<AsioSerialQueues>(kThreadsPerListener); },
      .place = [this](std::string_view name) { return places_.machService(name); },
      .endpointClients = places_.endpointClients(),
      .accounts = std::move(accounts),
      .lines = std::move(lines)});
}

LinuxXPC::~LinuxXPC() {
  loop_->stop();
  if (thread_.joinable()) thread_.join();
  const std::lock_guard lock(mutex_);
  loopHasEnded_ = true;
  for (const Awaited& left : std::exchange(awaited_, {})) {
    (*left.action)();
    left.done->set_value();
  }
}

std::future<void> LinuxXPC::endAside(std::unique_ptr<LinuxXPC> xpc) {
  std::future<void> end = xpc->ended_.get_future();
  LinuxXPC* const ending = xpc.release();  // It is left behind if there is no thread.
  try {
    std::thread([ending] {
      std::unique_ptr<LinuxXPC> owned(ending);
      std::promise<void> ended = std::move(owned->ended_);
      owned.reset();
      ended.set_value_at_thread_exit();
    }).detach();
  } catch (const std::system_error&) {
    // To end it here could take for ever. Its own threads go on, so the program must not destroy
    // what they use.
  }
  return end;
}

void LinuxXPC::performOnLoop(const std::function<void()>& action) {
  if (std::this_thread::get_id() == loopThread_) return action();
  const auto done = std::make_shared<std::promise<void>>();
  {
    // After the loop's thread has ended, the waiting threads take its place, one at a time: a
    // request that is still being served may drop the last reference to a listener.
    const std::lock_guard lock(mutex_);
    if (loopHasEnded_) return action();
    awaited_.push_back({&action, done});
  }
  loop_->post([this] { performNext(); });
  done->get_future().wait();
}

void LinuxXPC::performNext() {
  Awaited next;
  {
    const std::lock_guard lock(mutex_);
    next = std::move(awaited_.front());
    awaited_.pop_front();
  }
  (*next.action)();
  next.done->set_value();
}

}  // namespace platform
