#include "Platform/Linux/NamedConnections/BusClients.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Files/ReplacementFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr std::string_view kBus = "com.vantor.notificationbus";
constexpr mode_t kMode = 0644;
constexpr mode_t kOwnersMode = 0600;

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

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Result<void> noteOutdatedBus(const std::string& path) {
  const UniqueFd file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kOwnersMode));
  if (!file) return std::unexpected(systemError(path));
  return {};
}

Result<void> replace(const std::string& path, const std::string& text) {
  auto file = ReplacementFile::createFor(path);
  if (!file) return std::unexpected(std::move(file.error()));
  const std::vector<std::uint8_t> bytes(text.begin(), text.end());
  if (auto written = file->append(bytes); !written) return written;
  if (auto permitted = file->setMode(kMode); !permitted) return permitted;
  return file->commit();
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

std::string pathOfOutdatedBus(std::string_view root) {
  return pathOfBusClients(root) + ".outdated";
}

void forgetOutdatedBus(std::string_view root) { ::unlink(pathOfOutdatedBus(root).c_str()); }

Result<bool> writeBusClients(const PlatformConfiguration& configuration) {
  const std::string text = busClientsText(configuration, ::geteuid());
  const std::string path = pathOfBusClients(configuration.root);
  const std::string mark = pathOfOutdatedBus(configuration.root);
  // A full disk changes nothing then.
  if (contentOf(path) == text) return ::access(mark.c_str(), F_OK) == 0;
  // Note it first: if this process ends between the two, the bus is restarted for nothing, and not
  // left with the former part.
  auto written = noteOutdatedBus(mark);
  if (written) written = replace(path, text);
  if (written) return true;
  ::unlink(path.c_str());  // It could admit too many.
  return std::unexpected(std::move(written.error()));
}

}  // namespace platform
