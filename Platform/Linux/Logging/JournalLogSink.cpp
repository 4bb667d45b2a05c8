#include "Platform/Linux/Logging/JournalLogSink.h"

#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <sys/mman.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

// The seals that the journal requires of another process's memory file.
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL;

void appendField(std::string& entry, std::string_view name, std::string_view value) {
  entry += name;
  if (!value.contains('\n')) {
    entry += '=';
  } else {
    // A line break would end the value, and the rest would be read as fields.
    entry += '\n';
    const std::uint64_t size = value.size();
    for (unsigned shift = 0; shift < 64; shift += 8) entry += static_cast<char>(size >> shift);
  }
  entry += value;
  entry += '\n';
}

void appendFields(std::string& entry, const LogFields& fields) {
  if (fields.messageId) appendField(entry, "MESSAGE_ID", fields.messageId);
  if (!fields.label.empty()) appendField(entry, "VANTOR_LABEL", fields.label);
  if (fields.process != 0) appendField(entry, "VANTOR_PID", std::to_string(fields.process));
  if (fields.where.line() == 0) return;
  const std::string_view path = fields.where.file_name();
  appendField(entry, "CODE_FILE", path.substr(path.rfind('/') + 1));
  appendField(entry, "CODE_LINE", std::to_string(fields.where.line()));
}

Result<void> writeEntry(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto written =
        retryOnInterrupt([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
    if (written < 0) return std::unexpected(systemError("write", ErrorCode::kExhausted));
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return {};
}

}  // namespace

Result<std::unique_ptr<JournalLogSink>> JournalLogSink::make(std::string socketPath) {
  auto socket = LogSinkSocket::open(std::move(socketPath));
  if (!socket) return std::unexpected(std::move(socket.error()));
  return std::unique_ptr<JournalLogSink>(new JournalLogSink(std::move(*socket)));
}

Result<void> JournalLogSink::write(const LogRecord& record) {
  std::string entry;
  entry.reserve(256 + record.ident.size() + record.facility.size() + record.message.size());
  const char priority = static_cast<char>('0' + static_cast<int>(record.level));
  appendField(entry, "MESSAGE", record.message);
  appendField(entry, "PRIORITY", {&priority, 1});
  appendField(entry, "SYSLOG_FACILITY", "3");
  appendField(entry, "SYSLOG_IDENTIFIER", record.ident);
  appendField(entry, "VANTOR_FACILITY", record.facility);
  appendFields(entry, record.fields);
  auto sent = socket_.send(entry);
  if (sent || (sent.error().osError != EMSGSIZE && sent.error().osError != ENOBUFS)) return sent;
  return sendAsMemoryFile(entry);
}

Result<void> JournalLogSink::sendAsMemoryFile(std::string_view entry) const {
  const UniqueFd file(::memfd_create("log-message", MFD_ALLOW_SEALING | MFD_CLOEXEC));
  if (!file) return std::unexpected(systemError("memfd_create", ErrorCode::kExhausted));
  if (auto written = writeEntry(file.get(), entry); !written) return written;
  if (::fcntl(file.get(), F_ADD_SEALS, kSeals) != 0)
    return std::unexpected(systemError("fcntl F_ADD_SEALS"));
  return socket_.sendDescriptor(file.get());
}

}  // namespace platform
