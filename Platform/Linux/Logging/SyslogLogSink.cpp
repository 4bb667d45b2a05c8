#include "Platform/Linux/Logging/SyslogLogSink.h"

#include <array>
#include <ctime>
#include <iterator>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Logging/LogSinkText.h"

namespace platform {
namespace {

constexpr int kDaemonFacility = 3 << 3;

constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

Result<std::unique_ptr<SyslogLogSink>> SyslogLogSink::make(std::string socketPath) {
  auto socket = LogSinkSocket::open(std::move(socketPath));
  if (!socket) return std::unexpected(std::move(socket.error()));
  return std::unique_ptr<SyslogLogSink>(new SyslogLogSink(std::move(*socket)));
}

Result<void> SyslogLogSink::write(const LogRecord& record) {
  // Receivers expect local time, and English month names in any locale.
  const timespec now = timeOf(record);
  std::tm local{};
  ::localtime_r(&now.tv_sec, &local);
  std::string line;
  line.reserve(96 + record.ident.size() + record.facility.size() + record.message.size());
  fmt::format_to(std::back_inserter(line), "<{}>{} {:2} {:02}:{:02}:{:02} ",
                 kDaemonFacility | static_cast<int>(record.level),
                 kMonths[static_cast<std::size_t>(local.tm_mon)], local.tm_mday, local.tm_hour,
                 local.tm_min, local.tm_sec);
  appendEscaped(line, record.ident, " :[]");
  fmt::format_to(std::back_inserter(line), "[{}]: (", ::getpid());
  appendEscaped(line, record.facility, ")");
  line += ") ";
  appendEscaped(line, record.message);
  return socket_.send(line);
}

}  // namespace platform
