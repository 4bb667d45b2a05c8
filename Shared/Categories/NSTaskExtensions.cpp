#include "Shared/Categories/NSTaskExtensions.h"

#include <cstdint>
#include <memory>
#include <utility>

#include "Logger/Logger.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/SystemFacts/CurrentUser.h"
#include "Platform/Texts/StringFormat.h"
#include "Platform/Texts/Utf8.h"
#include "Shared/Categories/CodePoints.h"
#include "Shared/Categories/NSArrayExtensions.h"
#include "Shared/Categories/NSStringExtensions.h"

namespace NSTaskExtensions {
namespace {

using platform::Data;
using platform::FileHandle;
using platform::Notification;
using platform::NotificationCenter;
using platform::stringWithFormat;
using platform::TaskPipes;

constexpr char kSuppressed[] = "<suppressed>";
constexpr int kStatusOfFailedLaunch = -1;

// The output of one run so far. Handlers append to it on another thread, and it is read once they
// are gone.
struct Collected {
  std::string output;
  std::string error;
  NotificationCenter::Observation observation;

  void appendOutput(const Data& chunk) { appendData(&chunk, &output, kMaximumStdOutBufferSize); }
  void appendError(const Data& chunk) { appendData(&chunk, &error, kMaximumStdErrBufferSize); }
};

std::optional<std::string> describeArguments(const std::vector<std::string>* arguments,
                                             ArgumentLogging logging) {
  if (logging == ArgumentLogging::kSuppressed) return kSuppressed;
  if (!arguments) return std::nullopt;
  return NSArrayExtensions::singleLineDescription(
      platform::Array(arguments->begin(), arguments->end()));
}

// Shared with the handlers, which stay set if the launch fails.
void collectWithHandlers(const TaskPipes& pipes, const std::shared_ptr<Collected>& collected) {
  pipes.standardOutput->setReadabilityHandler(
      [collected](FileHandle& handle) { collected->appendOutput(handle.availableData()); });
  pipes.standardError->setReadabilityHandler(
      [collected](FileHandle& handle) { collected->appendError(handle.availableData()); });
}

void readNoticed(FileHandle& handle, const TaskPipes& pipes, Collected& collected) {
  if (&handle == pipes.standardOutput) {
    for (Data chunk = handle.availableData(); !chunk.empty(); chunk = handle.availableData()) {
      collected.appendOutput(chunk);
    }
  } else if (&handle == pipes.standardError) {
    for (Data chunk = handle.availableData(); !chunk.empty(); chunk = handle.availableData()) {
      collected.appendError(chunk);
    }
  } else {
    // The observer gets the notifications of every handle in the program and, deliberately, takes
    // foreign ones for output too.
    collected.appendOutput(handle.availableData());
  }
  handle.waitForDataInBackgroundAndNotify();
}

void collectWithNotices(platform::Task& task, const TaskPipes& pipes, Collected& collected) {
  collected.observation = task.notificationCenter().addObserver(
      platform::NSFileHandleDataAvailableNotification, nullptr,
      [pipes, &collected](const Notification& notice) {
        // A notification of this name carries its handle, but any program may post one without.
        auto* handle = const_cast<void*>(notice.object);
        if (!handle) return;
        readNoticed(*static_cast<FileHandle*>(handle), pipes, collected);
      });
  pipes.standardOutput->waitForDataInBackgroundAndNotify();
  pipes.standardError->waitForDataInBackgroundAndNotify();
}

void drain(const TaskPipes& pipes, Collected& collected) {
  FileHandle& output = *pipes.standardOutput;
  for (Data chunk = output.availableData(); !chunk.empty(); chunk = output.availableData()) {
    vantorlogger_line(platform::ASL_LEVEL_DEBUG,
                      "Added remaining data to stdout string after task termination.");
    collected.appendOutput(chunk);
  }
  // Deliberately, the next chunk comes from standard output again: only one of standard error is
  // taken.
  for (Data chunk = pipes.standardError->availableData(); !chunk.empty();
       chunk = output.availableData()) {
    vantorlogger_line(platform::ASL_LEVEL_DEBUG,
                      "Added remaining data to stderr string after task termination.");
    collected.appendError(chunk);
  }
}

std::string outputForLog(const std::string& output) {
  const std::size_t characters = CodePoints::count(output);
  if (characters <= kMaximumStdOutLoggingSize) return output;
  return stringWithFormat("%@...< %lu more characters>",
                          output.substr(0, CodePoints::offsetOf(kMaximumStdOutLoggingSize, output)),
                          characters - kMaximumStdOutLoggingSize);
}

template <typename T>
void handOut(T* place, T value) {
  if (place) *place = std::move(value);
}

}  // namespace

bool launchTask(platform::Task& receiver, std::optional<std::string_view> launchPath,
                const std::vector<std::string>* withArguments, std::string* standardOutput,
                std::string* standardError, int* statusCode,
                ArgumentLogging suppressArgumentLogging) {
  if (NSStringExtensions::isNilOrWhiteSpace(launchPath)) return false;
  if (!receiver.launchPath().empty()) return false;
  receiver.setLaunchPath(std::string(*launchPath));
  if (withArguments) receiver.setArguments(*withArguments);
  receiver.makePipes();

  const TaskPipes pipes = receiver.pipes();
  // Without pipes the launch reports it.
  const bool hasPipes = pipes.standardOutput && pipes.standardError;
  const bool hasHandlers = isSetReadabilityHandlerAvailable(receiver);
  const auto collected = std::make_shared<Collected>();
  if (hasPipes && hasHandlers) collectWithHandlers(pipes, collected);
  if (hasPipes && !hasHandlers) collectWithNotices(receiver, pipes, *collected);

  const auto arguments = describeArguments(withArguments, suppressArgumentLogging);
  vantorlogger_line(
      platform::ASL_LEVEL_INFO,
      stringWithFormat("Launching task %@ with args: %@ uid: %d, euid: %d", *launchPath, arguments,
                       platform::currentUserId(), platform::currentEffectiveUserId()));
  if (const auto launched = receiver.launch(); !launched) {
    const platform::NSException& exception = launched.error();
    vantorlogger_line(platform::ASL_LEVEL_ERR,
                      stringWithFormat("Launching task %@ with args: %@ failed. %@", *launchPath,
                                       arguments, exception));
    handOut(statusCode, kStatusOfFailedLaunch);
    handOut(standardError, stringWithFormat("%@: %@", exception.name, exception.reason));
    receiver.keep(collected);  // The observer lives as long as the task, like the handlers.
    return false;
  }
  const int status = receiver.waitUntilExit();
  if (hasHandlers) {
    pipes.standardOutput->setReadabilityHandler(nullptr);
    pipes.standardError->setReadabilityHandler(nullptr);
  } else {
    collected->observation = {};
    drain(pipes, *collected);
  }
  vantorlogger_line(
      platform::ASL_LEVEL_DEBUG,
      stringWithFormat(
          "Termination status: %d\n\tstdout: %@\n\tstderr: %@\n\tfor task: %@ with args: %@",
          status, outputForLog(collected->output), collected->error, *launchPath, arguments));
  handOut(statusCode, status);
  handOut(standardOutput, std::move(collected->output));
  handOut(standardError, std::move(collected->error));
  return status == 0;
}

bool launchTask(platform::Task& receiver, std::optional<std::string_view> launchPath,
                const std::vector<std::string>* withArguments, std::string* standardOutput,
                std::string* standardError, int* statusCode) {
  return launchTask(receiver, launchPath, withArguments, standardOutput, standardError, statusCode,
                    ArgumentLogging::kShown);
}

void appendData(const Data* data, std::string* toMutableString,
                std::size_t andKeepLastNumberOfCharacters) {
  if (!data || !toMutableString || andKeepLastNumberOfCharacters == 0) return;
  const std::string_view chunk(reinterpret_cast<const char*>(data->data()), data->size());
  if (platform::findIllFormedUtf8(chunk)) return;
  toMutableString->append(chunk);
  const std::size_t characters = CodePoints::count(*toMutableString);
  if (characters <= andKeepLastNumberOfCharacters) return;
  const std::size_t surplus = characters - andKeepLastNumberOfCharacters;
  toMutableString->erase(0, CodePoints::offsetOf(surplus, *toMutableString));
}

bool isSetReadabilityHandlerAvailable(const platform::Task& receiver) {
  const FileHandle* const standardError = receiver.pipes().standardError;
  return standardError && standardError->respondsToSetReadabilityHandler();
}

}  // namespace NSTaskExtensions
