#pragma once

#include <string>

// What the tool writes.

// To standard output, as it stands.
void print(const std::string& text);

// To standard error, with the program's name and a line end. Returns the exit status for a failure.
int fail(const std::string& why);
