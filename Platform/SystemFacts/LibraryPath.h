#pragma once

#include <string>
#include <string_view>

namespace platform {

// The path of a file of the product's own library: "ROOT/Library/NAME", and "/usr/lib/vantor/NAME"
// where the root is the machine's, as packages have no folders of their own in "/".
std::string libraryPath(std::string_view root, std::string_view name);

}  // namespace platform
