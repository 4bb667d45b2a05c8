#include <string>

#include <vantor/PropertyList.h>

#include "Kit/Values.h"
#include "Platform/Linux/Files/PropertyListFile.h"

namespace vantor {

Result<Value> readPropertyList(std::string_view path) {
  const auto value = platform::readPropertyListFile(std::string(path));
  if (!value) return errorOf(value.error());
  return ValueAccess::from(*value);
}

}  // namespace vantor
