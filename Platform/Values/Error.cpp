#include "Platform/Values/Error.h"

#include <system_error>

namespace platform {

std::string describe(const Error& error) {
  if (error.osError == 0) return error.context;
  return error.context + ": " + std::generic_category().message(error.osError);
}

}  // namespace platform
