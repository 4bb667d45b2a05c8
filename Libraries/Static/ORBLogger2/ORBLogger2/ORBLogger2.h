#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <source_location>
#include <string_view>
#include <type_traits>

#include "Platform/Logging/LogFields.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/Texts/StringFormat.h"

// Logger 2, the logger of the daemon's own classes. A line is formatted on the caller's thread and
// written on a serial queue that belongs to that thread, so that the caller does not wait for the
// log; lines of one thread are written in the order in which they were logged.
//
// A class opens the logger with its name when it is made and closes it when it ends.
// platform::mach_thread_self() identifies the threads.
//
// The functions work on the Logger2State that is bound, and do nothing while there is none. Any
// thread may call them; none fails to its caller.

// The ident of lines without a queue of their own, until a line is logged or the logger is opened.
// A program may set its own text before.
extern std::atomic<const char*> defaultLogger2Sender;

// Makes the control queue, once.
void vantorlogger2_init_default();

// Makes the queue of lines from threads that have none of their own, once: only the first ident
// counts. Called by vantorlogger2_open; before anything else it makes nothing.
void vantorlogger2_process_default_open(std::string_view ident);

// Gives the thread a queue whose lines bear `ident`. If it has one, adds another reference, and the
// ident stays as it was. Waits for the control queue.
void vantorlogger2_open(std::string_view ident, std::uint32_t threadNumber);

// Drops a reference; the last one removes the queue after its pending lines are written. Waits for
// the control queue.
void vantorlogger2_close(std::uint32_t threadNumber);

// The queue for that thread's lines: its own, else the process's, else the control queue; null if
// no state is bound. Shared with the logger's table and the pending lines.
std::shared_ptr<platform::SerialQueue> get_queue(std::uint32_t threadNumber);

// The finaliser of the queues' contexts: closes the given platform::AslClient.
void work_queue_finalizer(void* context);

// The text after the last slash of a path, the empty text for a null path. Points into `path`.
const char* vantorlogger2_srcbasename(const char* path);

// The logger's own errors are deliberately silent: there is no place left to report them.
template <typename... Arguments>
void vantorlogger2_logging_error(
    platform::FormatString<std::type_identity_t<Arguments>...> /*format*/,
    const Arguments&... /*arguments*/) {}

// Logs the text that vantorlogger2_log has formatted.
void vantorlogger2_logText(std::uint32_t threadNumber, int level, std::string_view message,
                           const platform::LogFields& fields = {});
bool vantorlogger2_isBound();

template <typename... Arguments>
void vantorlogger2_log(std::uint32_t threadNumber, int level,
                       platform::FormatString<std::type_identity_t<Arguments>...> format,
                       const Arguments&... arguments) {
  if (!vantorlogger2_isBound()) return;
  vantorlogger2_logText(threadNumber, level, platform::stringWithFormat(format, arguments...));
}

// A line of the calling thread as the daemon's classes write it: "[FILE:LINE] MESSAGE".
void vantorlogger2_line(int level, std::string_view message,
                        const std::source_location& where = std::source_location::current());

// The same with more fields.
void vantorlogger2_line(int level, std::string_view message, platform::LogFields fields,
                        const std::source_location& where = std::source_location::current());
