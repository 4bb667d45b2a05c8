#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/NameTable.h"

namespace platform {

// One method of a protocol.
struct MethodDescription {
  // A one-way message is sent and forgotten: nobody waits for it, it has no result and no
  // exception.
  enum class Kind { kTwoWay, kOneWay };

  std::string selector;  // the whole one, colons and all; it is the message name on the wire
  Kind kind = Kind::kTwoWay;

  // How many arguments a message of this selector carries.
  std::size_t argumentCount() const;
};

// What a server admits and a client may send.
class Protocol {
 public:
  // Later methods with a selector that was named before are ignored.
  Protocol(std::string name, std::initializer_list<MethodDescription> methods);

  const std::string& name() const { return name_; }
  const std::vector<MethodDescription>& methods() const { return methods_; }

  // Null for a selector outside the protocol.
  const MethodDescription* method(std::string_view selector) const;

 private:
  std::string name_;
  std::vector<MethodDescription> methods_;
};

using ProtocolTable = NameTable<Protocol>;

}  // namespace platform
