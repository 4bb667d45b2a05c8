#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace lint {

// The state of a program on this machine.
struct ProgramState {
  enum class Kind {
    kSound,
    kNotHere,  // even its folder is missing, so this may be another machine than it is meant for
    kMissing,
    kNoProgram,  // it is there, and can't be executed
    kUnsigned,
    kRefused,    // its signature or its place is not trusted
    kUnchecked,  // that can't be told now
  };
  Kind kind = Kind::kSound;
  std::string why = {};
};

// The facts about this machine that a file is checked against. An empty function checks nothing.
struct Machine {
  // The second argument says whether the program must be signed.
  std::function<ProgramState(const std::string& path, bool mustBeSigned)> program = {};
  // The property list in a file. Nothing if there is no such folder.
  std::function<std::optional<platform::Result<platform::Value>>(const std::string& path)>
      propertyList = {};
};

}  // namespace lint
