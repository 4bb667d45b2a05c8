#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// A datagram socket where the system's log daemons have theirs.
class LogReceiver {
 public:
  struct Datagram {
    std::string bytes;
    // What a passed descriptor's file holds, where one came; and whether it can still be changed.
    std::optional<std::string> file;
    bool sealed = false;
  };

  // Binds the path, of any length; a socket that lies there already is replaced.
  explicit LogReceiver(std::string path);
  LogReceiver(const LogReceiver&) = delete;
  LogReceiver& operator=(const LogReceiver&) = delete;
  // The socket's file stays, as that of a daemon that was killed.
  ~LogReceiver();

  // What has come since the last call, without waiting.
  std::vector<Datagram> take();
  int descriptor() const { return socket_; }

 private:
  int socket_ = -1;
};

// The fields of an entry in the journal's native protocol; nothing when it is ill-formed.
std::optional<std::map<std::string, std::string>> parseJournalEntry(std::string_view entry);

// The original of an escaped text; nothing when it is ill-formed.
std::optional<std::string> unescapeLogText(std::string_view text);

// A message of the classic system log, or a line of the log file without its line break; nothing
// when it is ill-formed.
struct ParsedLogLine {
  std::string time;
  std::string host;  // only in a file
  std::string ident;
  long pid = 0;
  std::string facility;
  std::string level;  // the number of the priority, or the level's name
  std::string text;
};
std::optional<ParsedLogLine> parseSyslogLine(std::string_view line);
std::optional<ParsedLogLine> parseLogFileLine(std::string_view line);

// A folder in the system's place for temporary files, removed with all that is in it.
class TemporaryLogFolder {
 public:
  TemporaryLogFolder();
  TemporaryLogFolder(const TemporaryLogFolder&) = delete;
  TemporaryLogFolder& operator=(const TemporaryLogFolder&) = delete;
  ~TemporaryLogFolder();

  // The path of `name` in it.
  std::string path(std::string_view name) const;

 private:
  std::string path_;
};

}  // namespace platform
