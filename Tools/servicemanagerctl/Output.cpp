#include "Tools/servicemanagerctl/Output.h"

#include <cstdio>
#include <cstdlib>

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void warn(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stderr); }

int fail(const std::string& why) {
  warn("servicemanagerctl: " + why + "\n");
  return EXIT_FAILURE;
}
