#include "ServiceManager/ServiceManager/InstallerServer.h"

#include <utility>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

void InstallerServer::takeMessage(std::string_view selector, const Array& arguments,
                                  MessageReply reply) {
  const ServerMessage message{ORBServiceManager::kClassName, selector, arguments};
  if (selector == "evaluateServices") return reply.answer(manager_.evaluateServices());
  if (selector != "shutdownServices:") return reply.answer(message.unrecognizedSelector());
  const Value labels = message.argument();
  if (!labels.array()) return reply.answer(message.invalidArgument("an array of labels"));
  manager_.shutdownServices(*labels.array(),
                            [reply = std::move(reply)](bool haveAllStopped) mutable {
                              reply.answer(Value(haveAllStopped));
                            });
}
