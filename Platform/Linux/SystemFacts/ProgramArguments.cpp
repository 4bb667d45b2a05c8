#include "Platform/Linux/SystemFacts/ProgramArguments.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace platform {
namespace {

constexpr int kNotUnderstood = 2;
constexpr std::string_view kVersion = VANTOR_VERSION;

int printAnswer(const std::string& text) {
  const bool isWritten =
      std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  return isWritten ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

std::string_view productVersion() { return kVersion; }

std::optional<int> answerArguments(int count, const char* const* arguments, std::string_view help) {
  if (count <= 1) return std::nullopt;
  const std::string_view path = arguments[0];
  const std::string name(path.substr(path.rfind('/') + 1));
  const std::string_view argument = arguments[1];
  if (count == 2 && argument == "--help") return printAnswer(std::string(help));
  if (count == 2 && argument == "--version") {
    return printAnswer(name + " " + std::string(kVersion) + "\n");
  }
  const bool isFirstKnown = argument == "--help" || argument == "--version";
  const std::string line = name + ": there is no argument \"" +
                           std::string(arguments[isFirstKnown ? 2 : 1]) +
                           "\"; --help tells what the program does\n";
  std::fputs(line.c_str(), stderr);
  return kNotUnderstood;
}

}  // namespace platform
