#include "Platform/Messages/Protocol.h"

#include <algorithm>

namespace platform {

std::size_t MethodDescription::argumentCount() const {
  return static_cast<std::size_t>(std::ranges::count(selector, ':'));
}

Protocol::Protocol(std::string name, std::span<const MethodDescription> methods)
    : name_(std::move(name)) {
  for (const MethodDescription& added : methods) {
    if (!method(added.selector)) methods_.push_back(added);
  }
}

const MethodDescription* Protocol::method(std::string_view selector) const {
  const auto found = std::ranges::find(methods_, selector, &MethodDescription::selector);
  return found == methods_.end() ? nullptr : &*found;
}

}  // namespace platform
