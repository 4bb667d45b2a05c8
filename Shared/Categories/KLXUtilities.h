#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <functional>
#include <optional>
#include <string_view>

#include "Platform/Values/NameTable.h"

// Calls by name.
namespace KLXUtilities {

// The methods of a class that can be called by name: those with one argument. Their return values
// are ignored.
template <typename Target, typename Argument>
using Methods = platform::SelectorTable<void(Target&, const Argument&)>;

// Calls the method of `target` that has this name. False, without a call, if the class has no such
// method or there is no target.
template <typename Target, typename Argument>
bool invokeSelector(const Methods<Target, Argument>& methods,
                    std::optional<std::string_view> selector, Target* target,
                    const Argument& argument) {
  if (!selector || !target) return false;
  const auto* const method = methods.find(*selector);
  if (!method) return false;
  (*method)(*target, argument);
  return true;
}

}  // namespace KLXUtilities
