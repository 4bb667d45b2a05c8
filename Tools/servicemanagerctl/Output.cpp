#include "Tools/servicemanagerctl/Output.h"

#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>

#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

std::string_view codeOf(Colour colour) {
  switch (colour) {
    case Colour::kBold:
      return "\033[1m";
    case Colour::kRed:
      return "\033[31m";
    case Colour::kGreen:
      return "\033[32m";
  }
  return "";
}

}  // namespace

Reader readerOf(int descriptor) {
  return ::isatty(descriptor) == 1 ? Reader::kTerminal : Reader::kOther;
}

std::string coloured(std::string_view text, Colour colour, Reader reader) {
  if (reader == Reader::kOther) return std::string(text);
  return fmt::format("{}{}\033[0m", codeOf(colour), text);
}

bool print(const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}

void warn(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stderr); }

void remark(const std::string& text) { warn("servicemanagerctl: " + text + "\n"); }

int fail(const std::string& why) {
  remark(why);
  return kExitFailed;
}
