#pragma once

#include <expected>
#include <functional>
#include <string_view>

#include "Platform/Messages/MessageReply.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"

// A message to one of the daemon's servers. A peer may give its arguments any type; a message is
// refused by an exception. `receiver` is the class that the exception names.
struct ServerMessage {
  std::string_view receiver;
  std::string_view selector;
  const platform::Array& arguments;

  // The first argument; nil without any.
  platform::Value argument() const;
  // Calls the method with the first argument, which must be a label or nil, and the right to
  // answer; or with an array of labels.
  void withLabel(platform::MessageReply reply,
                 const std::function<void(Label, platform::MessageReply)>& method) const;
  platform::MessageResult withLabels(
      const std::function<platform::MessageResult(const platform::Array&)>& method) const;

  // An exception that says what was expected in place of the first argument.
  std::unexpected<platform::NSException> invalidArgument(std::string_view expected) const;
  std::unexpected<platform::NSException> unrecognizedSelector() const;
};
