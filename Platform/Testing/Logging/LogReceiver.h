#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// A datagram socket in the place of a system's log daemon.
class LogReceiver {
 public:
  struct Datagram {
    std::string bytes;
    // The content of the passed descriptor's file, if there is one, and whether it is sealed.
    std::optional<std::string> file;
    bool sealed = false;
  };

  // Binds a path of any length and replaces an existing socket.
  explicit LogReceiver(std::string path);
  LogReceiver(const LogReceiver&) = delete;
  LogReceiver& operator=(const LogReceiver&) = delete;
  // The socket's file stays, like that of a killed daemon.
  ~LogReceiver();

  // The datagrams since the last call; does not block.
  std::vector<Datagram> take();
  int descriptor() const { return socket_; }

 private:
  int socket_ = -1;
};

// The fields of an entry in the journal's native protocol; std::nullopt if it is ill-formed.
std::optional<std::map<std::string, std::string>> parseJournalEntry(std::string_view entry);

// The original of an escaped text; std::nullopt if it is ill-formed.
std::optional<std::string> unescapeLogText(std::string_view text);

// A message of the classic system log, or a line of the log file without its line break. The
// parsers return std::nullopt if it is ill-formed.
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

// A folder in the system's folder for temporary files. The destructor removes it with its content.
class TemporaryLogFolder {
 public:
  TemporaryLogFolder();
  TemporaryLogFolder(const TemporaryLogFolder&) = delete;
  TemporaryLogFolder& operator=(const TemporaryLogFolder&) = delete;
  ~TemporaryLogFolder();

  // The path of `name` in the folder.
  std::string path(std::string_view name) const;

 private:
  std::string path_;
};

}  // namespace platform
