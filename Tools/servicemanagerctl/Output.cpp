#include "Tools/servicemanagerctl/Output.h"

#include <cstdio>
#include <cstdlib>

void print(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stdout); }

int fail(const std::string& why) {
  std::fputs(("servicemanagerctl: " + why + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}
