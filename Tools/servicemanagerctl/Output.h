#pragma once

#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

// Who reads what the tool writes: only people at a terminal get colours and lines that change.
enum class Reader { kTerminal, kOther };

// Who reads that standard file.
Reader readerOf(int descriptor);

enum class Colour { kBold, kRed, kGreen };

// The text in that colour where the reader sees it.
std::string coloured(std::string_view text, Colour colour, Reader reader);

// To be called first of all. A standard file that is closed becomes one that can be neither read
// nor written, so that nothing else gets its number and with it what is meant for a reader. Who
// reads no more ends no command, but is an error like others.
void prepareStandardFiles();

// To standard output, as it stands, at once. False where it could not be written, which
// concludingStatus() tells of; a command that goes on and on has to ask. From any thread.
bool print(const std::string& text);
// To standard error, as it stands, at once.
void warn(const std::string& text);

// For what is read until the reader has seen enough: one that has gone is no failure from now on.
void letReaderLeave();

// What the program ends with: `status`, or that of a failure, and an error message, where something
// that was printed since the last call could not be written.
int concludingStatus(int status);

// To standard error, with the program's name and a line end, nothing of which can steer a terminal:
// what goes with an answer, and why there is none. The latter returns the exit status for a
// failure.
void remark(const std::string& text);
int fail(const std::string& why);

// The same for an error of the platform; what this user may not do has an exit status of its own.
int fail(const platform::Error& error);

// The platform root that hints have to name, as it was given; empty for none.
void setRootOfHints(std::string root);

// The text with that root in each of its hints, which are all of this form:
// "servicemanagerctl COMMAND ...", quotation marks included. remark() and fail() do that by
// themselves.
std::string withRootInHints(std::string_view text);

// The text with all that can steer a terminal, and what is no UTF-8, as \uXXXX; other characters
// stay as they are.
std::string escaped(std::string_view text);
