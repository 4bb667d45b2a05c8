#include "Tools/servicemanagerctl/WatchCommand.h"

#include <chrono>
#include <cstdlib>
#include <limits>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

// The server answers within 5 s, also if nothing has happened.
constexpr Duration kEventsTimeOut = 30s;
constexpr Duration kPauseBeforeRetry = 1s;
// A server with too many clients that wait may answer sooner without events.
constexpr Duration kSoon = 1s;

// The number of services. A page behind the last one has nothing but that.
Answer<std::int64_t> countServices(DaemonClient& daemon) {
  const auto page = askForPage(daemon, "overviewFrom:", std::numeric_limits<std::int64_t>::max());
  if (!page) return std::unexpected(page.error());
  return (*page)[kFactServiceCount].integer().value_or(0);
}

struct Beginning {
  std::int64_t services = 0;
  std::int64_t lastEvent = 0;
};

Answer<Beginning> begin(DaemonClient& daemon) {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  const auto events = daemon.ask("eventsAfter:", {-1});
  if (!events) return std::unexpected(events.error());
  const auto services = countServices(daemon);
  if (!services) return std::unexpected(services.error());
  return Beginning{*services, (*events)[kFactLastEvent].integer().value_or(0)};
}

// Its question is answered at once.
Answer<void> connectAgain(DaemonClient& daemon) {
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  if (const auto events = daemon.ask("eventsAfter:", {-1}); !events)
    return std::unexpected(events.error());
  return {};
}

// No retry changes it.
bool isLasting(const Refusal& refusal) {
  return refusal.exitStatus == kExitNotPermitted || refusal.exitStatus == kExitNotAuthenticated;
}

void pauseFor(RunLoop& loop, Duration duration) {
  const auto timer = loop.startTimer(duration, RunLoop::Repeat::kOnce, [&loop] { loop.stop(); });
  loop.run();
}

}  // namespace

WatchCommand::WatchCommand(CLI::App& app)
    : watch_(app.add_subcommand("watch",
                                "Each event as it happens: starts and ends of services, "
                                "settings, the mode, extensions")) {
  watch_->add_flag("--json{lines}", lines_, "For programs, a line for each event")
      ->check(CLI::IsMember({"lines"}));
}

int WatchCommand::run(const DaemonClient::Environment& environment) const {
  RunLoop& loop = environment.objects.loop;
  std::optional<DaemonClient> daemon;
  const auto renew = [&]() -> DaemonClient& {
    // After a failure the name would not be looked up again for a while.
    environment.objects.connections.serverDidStart(kOperatorServer);
    return daemon.emplace(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  };
  const auto beginning = begin(renew());
  if (!beginning) {
    fail(beginning.error().text);
    return beginning.error().exitStatus;
  }
  warn(fmt::format("Watching {} services; Ctrl-C ends it.\n", beginning->services));
  std::int64_t last = beginning->lastEvent;
  for (;;) {
    const auto ended = follow(*daemon, loop, last);
    if (ended) return *ended;
    if (!show(lineOfConnection("does not answer; waiting for it", loop.wallTime())))
      return EXIT_SUCCESS;
    remark(ended.error().text);
    for (Answer<void> answered = std::unexpected(ended.error()); !answered;) {
      pauseFor(loop, kPauseBeforeRetry);
      answered = connectAgain(renew());
      if (answered || !isLasting(answered.error())) continue;
      fail(answered.error().text);
      return answered.error().exitStatus;
    }
    if (!show(lineOfConnection("", loop.wallTime()))) return EXIT_SUCCESS;
  }
}

Answer<int> WatchCommand::follow(DaemonClient& daemon, RunLoop& loop, std::int64_t& last) const {
  for (;;) {
    const Instant asked = loop.now();
    const auto answer = daemon.ask("eventsAfter:", {last}, kEventsTimeOut);
    if (!answer) return std::unexpected(answer.error());
    const std::int64_t missed = (*answer)[kFactMissedEvents].integer().value_or(0);
    if (missed > 0 && !show(lineOfMissed(missed, loop.wallTime()))) return EXIT_SUCCESS;
    last = (*answer)[kFactLastEvent].integer().value_or(last);
    const Array* const events = (*answer)[kFactEvents].array();
    if (!events)
      return std::unexpected(Refusal{EXIT_FAILURE, "the service manager told no events"});
    for (const Value& event : *events) {
      const auto line = lineOfEvent(event, readerOf(STDOUT_FILENO));
      if (line && !show(*line)) return EXIT_SUCCESS;
    }
    if (events->empty() && loop.now() - asked < kSoon) pauseFor(loop, kPauseBeforeRetry);
  }
}

// If the reader has gone, nothing is left to do.
bool WatchCommand::show(const WatchLine& line) const {
  return print(lines_.empty() ? line.text : dumpedLine(line.json));
}
