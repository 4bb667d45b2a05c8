#include "Platform/Logging/SystemLog.h"

#include <algorithm>

#include "Platform/Texts/StringFormat.h"
#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

// The facility of the platform's default client.
constexpr char kDefaultFacility[] = "user";

}  // namespace

SystemLog::SystemLog(LogSink& sink, std::string programName, int maximumLevel)
    : sink_(sink),
      defaultClient_{std::move(programName), kDefaultFacility},
      maximumLevel_(maximumLevel) {}

SystemLog::~SystemLog() { static_cast<void>(lost_.report(sink_, /*isUrgent=*/false)); }

std::unique_ptr<AslClient> SystemLog::asl_open(std::string_view ident, std::string_view facility,
                                               std::uint32_t /*options*/) {
  if (ident.size() > kMaximumNameSize || facility.size() > kMaximumNameSize) return nullptr;
  return std::make_unique<AslClient>(AslClient{std::string(ident), std::string(facility)});
}

void SystemLog::asl_log(const AslClient* client, int level, std::string_view message,
                        const LogFields& fields) {
  const int clamped =
      std::clamp(level, static_cast<int>(ASL_LEVEL_EMERG), static_cast<int>(ASL_LEVEL_DEBUG));
  if (clamped > maximumLevel_) return;
  const AslClient& speaker = client != nullptr ? *client : defaultClient_;
  std::string cut;
  if (message.size() > kMaximumMessageSize) {
    cut = stringWithFormat("%@ (cut, %zu bytes in all)",
                           cutAtCharacter(message, kMaximumMessageSize), message.size());
    message = cut;
  }
  // A sink that refuses the short report would refuse the message, too, so an outage costs one
  // attempt per message and not two.
  const LogRecord record{.ident = speaker.ident,
                         .facility = speaker.facility,
                         .level = static_cast<AslLevel>(clamped),
                         .message = message,
                         .isUrgent = clamped <= ASL_LEVEL_ERR,
                         .fields = fields};
  if (!lost_.report(sink_, record.isUrgent) || !sink_.write(record)) countLost();
}

void SystemLog::asl_close(std::unique_ptr<AslClient> client) { client.reset(); }

}  // namespace platform
