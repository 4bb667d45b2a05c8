#include "Platform/SystemFacts/LibraryPath.h"

#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

std::string libraryPath(std::string_view root, std::string_view name) {
  const std::string_view library = root == "/" ? "usr/lib/vantor/" : "Library/";
  return pathBelowRoot(root, std::string(library) + std::string(name));
}

}  // namespace platform
