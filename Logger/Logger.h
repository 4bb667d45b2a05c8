#pragma once

#include <atomic>
#include <cstdint>
#include <source_location>
#include <string_view>
#include <type_traits>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Texts/StringFormat.h"

// Logger 1, the logger of the library code. Each thread has a client of the system log of its own,
// and a line is written before the call returns, on the caller's thread.
//
// Any thread may call these functions; none fails to its caller. They work on the system log that
// is bound, see LoggerBinding; while there is none, lines are dropped and nothing is opened.

// Gives the calling thread a client, or, when it has one, another reference on it, and then the
// ident and the facility stay what they were. Both texts are zero-terminated.
void vantorlogger_open(const char* ident, const char* facility);

// The calling thread's client. A thread without one opens one that says so in its ident; no close
// belongs to that. Null when it could not be opened, which stands for the log's default client.
const platform::AslClient* vantorlogger_getclient();

// Drops a reference of the calling thread; with the last one its client is closed.
void vantorlogger_close();

// Called with the record of a thread that ends. It does nothing, so that the client stays usable
// for whatever code runs late on that thread: the record stays in the list of all records.
void vantorlogger_client_destructor(void* record);

// The text after the last slash of a path, the empty text for a null path. Points into `path`.
const char* vantor_srcbasename(const char* path);

// The logger's own errors are deliberately silent: there is no place left to report them.
template <typename... Arguments>
void vantorlogger_logging_error(
    platform::FormatString<std::type_identity_t<Arguments>...> /*format*/,
    const Arguments&... /*arguments*/) {}

// A line of the calling thread as the library code writes it: "[FILE:LINE] MESSAGE".
void vantorlogger_line(int level, std::string_view message,
                       const std::source_location& where = std::source_location::current());

// Binds a system log: the functions here use it until this ends. Only one binding exists at a time,
// and while it begins or ends no other thread may be inside one of those functions.
class [[nodiscard]] LoggerBinding {
 public:
  explicit LoggerBinding(platform::SystemLog& systemLog);
  LoggerBinding(const LoggerBinding&) = delete;
  LoggerBinding& operator=(const LoggerBinding&) = delete;
  ~LoggerBinding();
};
