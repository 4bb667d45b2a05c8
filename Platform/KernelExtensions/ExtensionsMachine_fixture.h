#pragma once

#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"

namespace platform {

// A machine with two installed extensions, none of them loaded: the control of one answers, the
// control of the other never listens.
class ExtensionsMachine {
 public:
  static constexpr char kGood[] = "com.example.nke.good";
  static constexpr char kSilent[] = "com.example.nke.silent";

  virtual ~ExtensionsMachine() = default;

  virtual KernelExtensions& extensions() = 0;
  virtual KernelControls& controls() = 0;
};

}  // namespace platform
