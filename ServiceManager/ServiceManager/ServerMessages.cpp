#include "ServiceManager/ServiceManager/ServerMessages.h"

#include <utility>

#include "Platform/Texts/StringFormat.h"

using namespace platform;

Value ServerMessage::argument() const { return arguments.empty() ? Value() : arguments.front(); }

void ServerMessage::withLabel(MessageReply reply,
                              const std::function<void(Label, MessageReply)>& method) const {
  const Value label = argument();
  if (label.isNil()) return method(std::nullopt, std::move(reply));
  if (!label.string()) return reply.answer(invalidArgument("a label"));
  method(*label.string(), std::move(reply));
}

MessageResult ServerMessage::withLabels(
    const std::function<MessageResult(const Array&)>& method) const {
  const Value labels = argument();
  if (!labels.array()) return invalidArgument("an array of labels");
  return method(*labels.array());
}

std::unexpected<NSException> ServerMessage::invalidArgument(std::string_view expected) const {
  const Value given = argument();
  return std::unexpected(
      NSException{kNSInvalidArgumentException,
                  stringWithFormat("-[%@ %@]: expected %@, got %s", receiver, selector, expected,
                                   given.isNil() ? "nil" : className(given)),
                  {}});
}

std::unexpected<NSException> ServerMessage::unrecognizedSelector() const {
  return std::unexpected(NSException{
      kNSInvalidArgumentException,
      stringWithFormat("-[%@ %@]: unrecognized selector sent to instance", receiver, selector),
      {}});
}
