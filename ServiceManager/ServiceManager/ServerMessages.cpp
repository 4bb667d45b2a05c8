#include "ServiceManager/ServiceManager/ServerMessages.h"

#include "Platform/Texts/StringFormat.h"

using namespace platform;

Value ServerMessage::argument() const { return arguments.empty() ? Value() : arguments.front(); }

MessageResult ServerMessage::withLabel(const std::function<Value(Label)>& method) const {
  const Value label = argument();
  if (label.isNil()) return method(std::nullopt);
  if (!label.string()) return invalidArgument("a label");
  return method(*label.string());
}

MessageResult ServerMessage::withLabels(const std::function<Value(const Array&)>& method) const {
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
