#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Values/NameTable.h"

namespace platform {

// One method of a protocol.
struct MethodDescription {
  // A one-way message is sent without waiting for it; it has no result and no exception.
  enum class Kind { kTwoWay, kOneWay };

  std::string selector;  // the full selector with its colons; the message's name when it is sent
  Kind kind = Kind::kTwoWay;

  // The number of arguments of a message with this selector.
  std::size_t argumentCount() const;
};

// The messages that a server admits and a client may send.
class Protocol {
 public:
  // Later methods with the same selector are ignored.
  Protocol(std::string name, std::initializer_list<MethodDescription> methods)
      : Protocol(std::move(name), std::span(methods.begin(), methods.size())) {}
  Protocol(std::string name, std::span<const MethodDescription> methods);

  const std::string& name() const { return name_; }
  const std::vector<MethodDescription>& methods() const { return methods_; }

  // Null if the selector is outside of the protocol.
  const MethodDescription* method(std::string_view selector) const;

 private:
  std::string name_;
  std::vector<MethodDescription> methods_;
};

using ProtocolTable = NameTable<Protocol>;

}  // namespace platform
