#pragma once

#include <string>
#include <string_view>

// Who reads what the tool writes: only people at a terminal get colours and lines that change.
enum class Reader { kTerminal, kOther };

// Who reads that standard file.
Reader readerOf(int descriptor);

enum class Colour { kBold, kRed, kGreen };

// The text in that colour where the reader sees it.
std::string coloured(std::string_view text, Colour colour, Reader reader);

// To standard output, and to standard error, as it stands, at once. False where nobody reads any
// more.
bool print(const std::string& text);
void warn(const std::string& text);

// To standard error, with the program's name and a line end: what goes with an answer, and why
// there is none. The latter returns the exit status for a failure.
void remark(const std::string& text);
int fail(const std::string& why);
