#pragma once

#include <optional>
#include <string_view>

namespace platform {

// Answers "--help" with `help` and "--version" with the program's name and the product's version.
// Returns the exit status if there are arguments: 2 for any other ones, which are named on standard
// error. Without arguments the program is to start.
std::optional<int> answerArguments(int count, const char* const* arguments, std::string_view help);

// The product's version, three numbers.
std::string_view productVersion();

}  // namespace platform
