#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Processes/Task.h"
#include "Platform/Values/Value.h"

// The limits: how many of the last characters of standard output and of standard error are kept,
// and how many of standard output a log line shows.
inline constexpr unsigned long kMaximumStdOutBufferSize = 32000;
inline constexpr unsigned long kMaximumStdErrBufferSize = 1000;
inline constexpr unsigned long kMaximumStdOutLoggingSize = 100;

// Runs other programs to their end. A task object serves one run. Logged through logger 1; belongs
// to the run loop's thread.
namespace NSTaskExtensions {

enum class ArgumentLogging {
  kShown,
  kSuppressed,  // "<suppressed>" replaces them
};

// Runs the program at `launchPath` with the arguments (null for none), blocks until it ends, and
// returns the end of its output and its status, each only through a pointer that is not null.
// Returns true if it ran and its status is 0.
//
// - A path that is nil or white space, or a receiver that has a launch path already: false, and
// nothing is logged, run or returned.
// - A program that can't be launched: false; the status is -1, standard error the exception's name
// and reason. Standard output is left as it is.
// - A program ended by a signal: the status is the signal's number.
//
// Output that is not UTF-8 is lost chunk by chunk: a chunk is the result of one read.
bool launchTask(platform::Task& receiver, std::optional<std::string_view> launchPath,
                const std::vector<std::string>* withArguments, std::string* standardOutput,
                std::string* standardError, int* statusCode,
                ArgumentLogging suppressArgumentLogging);
// Shows the arguments in the log.
bool launchTask(platform::Task& receiver, std::optional<std::string_view> launchPath,
                const std::vector<std::string>* withArguments, std::string* standardOutput,
                std::string* standardError, int* statusCode);

// Appends the chunk to the text, and keeps the last `andKeepLastNumberOfCharacters` of it. Does
// nothing if one of the two is null or that number is 0; a chunk that is not UTF-8 adds nothing.
void appendData(const platform::Data* data, std::string* toMutableString,
                std::size_t andKeepLastNumberOfCharacters);

// Whether the handle of the receiver's standard error calls readability handlers; false if there is
// no handle.
bool isSetReadabilityHandlerAvailable(const platform::Task& receiver);

}  // namespace NSTaskExtensions
