#include "Tools/servicemanagerctl/WatchCommand.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Messages/NSProtocolChecker.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

namespace {

using namespace platform;

// In the log's format, so that the two can be compared.
std::string textOf(WallTime time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return fmt::format("{:%FT%T}Z", fmt::gmtime(seconds.time_since_epoch().count()));
}

// Prints the service manager's status notices.
class NoticePrinter final : public MessageReceiver {
 public:
  NoticePrinter(RunLoop& loop, bool json) : loop_(loop), json_(json) {}

  MessageResult receiveMessage(std::string_view /*jobStatusDidChangeWithInfo:*/,
                               const Array& arguments) override {
    const std::string time = textOf(loop_.wallTime());
    const auto line = json_ ? noticeAsJson(arguments.front(), time)
                            : noticeAsText(arguments.front(), time, readerOf(STDOUT_FILENO));
    // If the reader has gone, the service manager need not notify this program either.
    if (line && !print(*line)) loop_.stop();
    return Value();
  }

 private:
  RunLoop& loop_;
  const bool json_;
};

// The number of services. A page behind the last one has nothing but that.
Answer<std::int64_t> countServices(const DaemonClient::Environment& environment) {
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  const auto page = daemon.ask("overviewFrom:", {std::numeric_limits<std::int64_t>::max()});
  if (!page) return std::unexpected(page.error());
  return (*page)[kFactServiceCount].integer().value_or(0);
}

// Returns the number of services once the service manager has registered the client.
Answer<std::int64_t> registerClient(const DaemonClient::Environment& environment,
                                    DaemonClient& daemon, const Value& client) {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  if (const auto sent = daemon.ask("registerClient:", {client}); !sent)
    return std::unexpected(sent.error());
  // The registration has no answer, so wait for the answer to this one.
  if (const auto answered = daemon.ask("pidForService:", {Value()}); !answered)
    return std::unexpected(answered.error());
  return countServices(environment);
}

}  // namespace

WatchCommand::WatchCommand(CLI::App& app)
    : watch_(app.add_subcommand("watch", "Each start and end of a service as it happens")) {
  watch_->add_flag("--json", json_, "For programs, a line each");
}

int WatchCommand::run(const DaemonClient::Environment& environment) const {
  RunLoop& loop = environment.objects.loop;
  DaemonClient daemon(environment, kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol);
  NoticePrinter printer(loop, json_);
  // The connection holds it weakly, so nobody else owns it.
  const auto client = std::make_shared<NSProtocolChecker>(
      &printer,
      environment.objects.protocols.find(kORBServiceManagerUserInterfaceDelegateProtocol));
  bool hasDied = false;
  const auto death = environment.objects.center.addObserver(kNSConnectionDidDieNotification,
                                                            nullptr, [&](const Notification&) {
                                                              hasDied = true;
                                                              loop.stop();
                                                            });
  const auto services = registerClient(environment, daemon, Value(client));
  if (!services) {
    fail(services.error().text);
    return services.error().exitStatus;
  }
  warn(fmt::format("Watching {} services; Ctrl-C ends it.\n", *services));
  loop.run();
  if (!hasDied) return EXIT_SUCCESS;
  fail("the service manager has gone; the job host starts it again, so watch again then");
  return kExitNobodyThere;
}
