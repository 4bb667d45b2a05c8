#include "Platform/Logging/NSLog.h"

namespace platform {

void NSLogText(const NSLogOutput& output, std::string_view text) {
  // A refusal has nobody to be told to: the system log gets the text all the same.
  static_cast<void>(
      output.standardError.write({output.systemLog.programName(), {}, ASL_LEVEL_WARNING, text}));
  output.systemLog.asl_log(nullptr, ASL_LEVEL_WARNING, text);
}

}  // namespace platform
