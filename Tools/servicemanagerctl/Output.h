#pragma once

#include <string>

// Who reads what the tool writes: only people at a terminal get colours and lines that change.
enum class Reader { kTerminal, kOther };

// To standard output, and to standard error, as it stands.
void print(const std::string& text);
void warn(const std::string& text);

// To standard error, with the program's name and a line end. Returns the exit status for a failure.
int fail(const std::string& why);
