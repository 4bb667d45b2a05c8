#include "ServiceManager/ServiceManager/InstallerServer.h"

#include <utility>

#include "ServiceManager/ServiceManager/ChangeRequests.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

void InstallerServer::takeMessage(std::string_view selector, const Array& arguments,
                                  MessageReply reply) {
  const ServerMessage message{ORBServiceManager::kClassName, selector, arguments};
  const bool isEnd = selector == "evaluateServices";
  if (!isEnd && selector != "shutdownServices:") {
    return reply.answer(message.unrecognizedSelector());
  }
  const Value labels = message.argument();
  if (!isEnd && !labels.array()) {
    return reply.answer(message.invalidArgument("an array of labels"));
  }
  if (isEnd) {
    // The end always passes: without it all services would stay stopped.
    changes_.perform([this] { manager_.evaluateServices(); });
    return reply.answer(Value(true));
  }
  if (auto refusal = changes_.refusal()) {
    return reply.answer(std::unexpected(*std::move(refusal)));
  }
  // The delayed end belongs to earlier work, and would start services amid this one.
  changes_.forgetDelayed();
  manager_.shutdownServices(*labels.array(),
                            [reply = std::move(reply)](bool haveAllStopped) mutable {
                              reply.answer(Value(haveAllStopped));
                            });
}
