#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"

// The reader of the output: only a person at a terminal gets colours and lines that change. A plain
// terminal gets neither, but what fits its width.
enum class Reader { kTerminal, kPlainTerminal, kOther };

// The reader of that standard file. A terminal is plain if the environment has "NO_COLOR", or
// "TERM" says that it is dumb.
Reader readerOf(int descriptor);

// The columns of the terminal; 0 if it is none, or does not say.
std::size_t widthOfTerminal(int descriptor);

enum class Colour { kBold, kRed, kGreen };

// The text in that colour if the reader is a terminal that is not plain.
std::string coloured(std::string_view text, Colour colour, Reader reader);

// Call this first. A closed standard file is replaced by one that can be neither read nor written:
// otherwise the next file that is opened would get its number, and the output with it. After this,
// writing to a pipe without a reader fails with an error and does not end the program.
void prepareStandardFiles();

// Writes to standard output as it stands, at once. False if it could not be written;
// concludingStatus() then reports that, but a command without an end has to check. Any thread may
// call it.
bool print(const std::string& text);
// Writes to standard error as it stands, at once.
void warn(const std::string& text);

// From now on, a reader that has gone is no failure. For output that people read only in part.
void letReaderLeave();

// The program's exit status. If output was lost since the last call, reports it, and a success
// becomes a failure.
int concludingStatus(int status);

// Writes a line to standard error, after the program's name and with control characters escaped: a
// note on an answer, or why there is none. fail() returns the exit status of a failure.
void remark(const std::string& text);
int fail(const std::string& why);

// The same for an error of the platform; a missing permission has its own exit status.
int fail(const platform::Error& error);

// The platform root to name in hints, as the user gave it; empty for none.
void setRootOfHints(std::string root);

// Adds that root to each hint in the text; all hints have the form "servicemanagerctl COMMAND ...",
// quotation marks included. remark() and fail() call this themselves.
std::string withRootInHints(std::string_view text);

// The words of the text in lines of at most that width, but for a longer word; 0 for any width.
std::vector<std::string> wrapped(std::string_view text, std::size_t width);

// Whether a terminal obeys the character or hides it: controls, formats, other orders of writing.
bool steersTerminals(std::int32_t character);

// The text with such characters and ill-formed UTF-8 as \uXXXX; other characters stay as they
// are.
std::string escaped(std::string_view text);
