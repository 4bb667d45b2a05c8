#include "Platform/Linux/NamedConnections/BusClients.h"

#include <algorithm>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Files/ReplacementFile.h"

namespace platform {
namespace {

constexpr std::string_view kBus = "com.vantor.notificationbus";
constexpr mode_t kMode = 0644;

std::string xmlText(std::string_view text) {
  std::string escaped;
  for (const char character : text) {
    switch (character) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += character;
    }
  }
  return escaped;
}

}  // namespace

std::string busClientsText(const PlatformConfiguration& configuration, std::uint32_t ownUser) {
  std::string allowed = fmt::format("<allow user=\"{}\"/>", ownUser);
  if (std::ranges::find(configuration.openListeners, kBus) != configuration.openListeners.end()) {
    allowed += "<allow user=\"*\"/>";
  } else if (configuration.group) {
    allowed += fmt::format("<allow group=\"{}\"/>", xmlText(*configuration.group));
  }
  return "<busconfig><policy context=\"default\">" + allowed + "</policy></busconfig>\n";
}

std::string pathOfBusClients(std::string_view root) {
  return pathBelowRoot(root, "run/vantor/notification-bus-clients");
}

Result<void> writeBusClients(const PlatformConfiguration& configuration) {
  const std::string text = busClientsText(configuration, ::geteuid());
  auto file = ReplacementFile::createFor(pathOfBusClients(configuration.root));
  if (!file) return std::unexpected(std::move(file.error()));
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  if (auto written = file->append(bytes); !written) return written;
  if (auto permitted = file->setMode(kMode); !permitted) return permitted;
  return file->commit();
}

}  // namespace platform
