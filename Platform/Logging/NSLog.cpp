#include "Platform/Logging/NSLog.h"

namespace platform {

void NSLogText(const NSLogOutput& output, std::string_view text) {
  // There is nobody to whom a failure could be reported; the system log gets the text anyway.
  static_cast<void>(
      output.standardError.write({output.systemLog.programName(), {}, ASL_LEVEL_WARNING, text}));
  output.systemLog.asl_log(nullptr, ASL_LEVEL_WARNING, text);
}

}  // namespace platform
