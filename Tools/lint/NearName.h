#pragma once

#include <optional>
#include <span>
#include <string_view>

namespace lint {

// The known name that `name` is probably meant to be: the nearest one, if it is near enough. Also
// finds one that differs only in the case of its letters. Nothing for a very long name.
std::optional<std::string_view> nearName(std::string_view name,
                                         std::span<const std::string_view> known);

}  // namespace lint
