#include "Platform/Testing/Logging/LogReceiver.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr std::size_t kLargestDatagram = std::size_t{1} << 20;

// A test without its environment proves nothing.
void require(bool condition) {
  if (!condition) std::abort();
}

std::string contentsOf(int descriptor) {
  struct stat attributes{};
  require(::fstat(descriptor, &attributes) == 0);
  std::string contents(static_cast<std::size_t>(attributes.st_size), '\0');
  require(::pread(descriptor, contents.data(), contents.size(), 0) ==
          static_cast<ssize_t>(contents.size()));
  return contents;
}

std::string text(const std::csub_match& match) { return match.str(); }

}  // namespace

LogReceiver::LogReceiver(std::string path)
    : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  require(socket_ >= 0);
  ::unlink(path.c_str());
  const std::filesystem::path whole(path);
  const int folder = ::open(whole.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  require(folder >= 0);
  const std::string reachable =
      "/proc/self/fd/" + std::to_string(folder) + "/" + whole.filename().string();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  require(reachable.size() < sizeof(address.sun_path));
  std::memcpy(address.sun_path, reachable.c_str(), reachable.size() + 1);
  require(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
  ::close(folder);
}

LogReceiver::~LogReceiver() { ::close(socket_); }

std::vector<LogReceiver::Datagram> LogReceiver::take() {
  std::vector<Datagram> datagrams;
  std::string buffer(kLargestDatagram, '\0');
  for (;;) {
    iovec part{buffer.data(), buffer.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t size = ::recvmsg(socket_, &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
    if (size < 0) return datagrams;
    require((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) == 0);
    Datagram& datagram = datagrams.emplace_back();
    datagram.bytes = buffer.substr(0, static_cast<std::size_t>(size));
    if (const cmsghdr* header = CMSG_FIRSTHDR(&message)) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header), sizeof(descriptor));
      constexpr int kAll = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;
      datagram.sealed = (::fcntl(descriptor, F_GET_SEALS) & kAll) == kAll;
      datagram.file = contentsOf(descriptor);
      ::close(descriptor);
    }
  }
}

std::optional<std::map<std::string, std::string>> parseJournalEntry(std::string_view entry) {
  std::map<std::string, std::string> fields;
  while (!entry.empty()) {
    const std::size_t end = entry.find('\n');
    if (end == entry.npos) return std::nullopt;
    const std::string_view line = entry.substr(0, end);
    entry.remove_prefix(end + 1);
    const std::size_t equals = line.find('=');
    if (equals != line.npos) {
      fields.emplace(line.substr(0, equals), line.substr(equals + 1));
      continue;
    }
    std::uint64_t size = 0;
    if (entry.size() < sizeof(size)) return std::nullopt;
    for (std::size_t i = 0; i < sizeof(size); ++i)
      size |= static_cast<std::uint64_t>(static_cast<std::uint8_t>(entry[i])) << (8 * i);
    entry.remove_prefix(sizeof(size));
    if (entry.size() <= size || entry[size] != '\n') return std::nullopt;
    fields.emplace(line, entry.substr(0, size));
    entry.remove_prefix(size + 1);
  }
  return fields;
}

std::optional<std::string> unescapeLogText(std::string_view text) {
  std::string original;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (static_cast<unsigned char>(text[at]) < ' ') return std::nullopt;
    if (text[at] != '\\') {
      original += text[at];
      continue;
    }
    if (++at == text.size()) return std::nullopt;
    if (text[at] == '\\') {
      original += '\\';
    } else if (text[at] == 'n') {
      original += '\n';
    } else if (text[at] == 'r') {
      original += '\r';
    } else if (text[at] == 't') {
      original += '\t';
    } else if (text[at] == 'x' && at + 2 < text.size()) {
      original +=
          static_cast<char>(std::strtoul(std::string(text.substr(at + 1, 2)).c_str(), nullptr, 16));
      at += 2;
    } else {
      return std::nullopt;
    }
  }
  return original;
}

std::optional<ParsedLogLine> parseSyslogLine(std::string_view line) {
  // Only the names: a long text is too much for the regular expression.
  static const std::regex kForm(
      R"(^<(\d+)>([A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d) ([^ \[:\]]*)\[(\d+)\]: \(([^)]*)\) )",
      std::regex::optimize);
  std::cmatch parts;
  if (!std::regex_search(line.data(), line.data() + line.size(), parts, kForm)) return std::nullopt;
  const auto ident = unescapeLogText(text(parts[3]));
  const auto facility = unescapeLogText(text(parts[5]));
  const auto message = unescapeLogText(line.substr(static_cast<std::size_t>(parts.length(0))));
  if (!ident || !facility || !message) return std::nullopt;
  return ParsedLogLine{text(parts[2]), {},       *ident,  std::stol(text(parts[4])),
                       *facility,      parts[1], *message};
}

std::optional<ParsedLogLine> parseLogFileLine(std::string_view line) {
  static const std::regex kForm(
      R"(^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z) ([^ ]+) ([^\[]*)\[(\d+)\] \(([^)]*)\) <([A-Z][a-z]+)> )",
      std::regex::optimize);
  std::cmatch parts;
  if (!std::regex_search(line.data(), line.data() + line.size(), parts, kForm)) return std::nullopt;
  const auto ident = unescapeLogText(text(parts[3]));
  const auto facility = unescapeLogText(text(parts[5]));
  const auto message = unescapeLogText(line.substr(static_cast<std::size_t>(parts.length(0))));
  if (!ident || !facility || !message) return std::nullopt;
  return ParsedLogLine{text(parts[1]), parts[2], *ident,  std::stol(text(parts[4])),
                       *facility,      parts[6], *message};
}

TemporaryLogFolder::TemporaryLogFolder()
    : path_((std::filesystem::temp_directory_path() / "logs-XXXXXX").string()) {
  require(::mkdtemp(path_.data()) != nullptr);
}

TemporaryLogFolder::~TemporaryLogFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryLogFolder::path(std::string_view name) const {
  return path_ + "/" + std::string(name);
}

}  // namespace platform
