#include "ServiceManager/Catalogue/PathComponents.h"

std::string pathByAppendingComponent(std::string_view path, std::string_view component) {
  if (path.empty()) return std::string(component);
  while (path.ends_with('/')) path.remove_suffix(1);
  while (component.starts_with('/')) component.remove_prefix(1);
  std::string joined(path);
  joined += '/';
  joined += component;
  return joined;
}
