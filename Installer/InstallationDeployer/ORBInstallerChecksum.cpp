#include "Installer/InstallationDeployer/ORBInstallerChecksum.h"

#include "Platform/Digests/Digest.h"

std::string ORBInstallerChecksum::generateSHA256(std::span<const std::uint8_t> data) {
  return platform::hexadecimalText(platform::CC_SHA256(data));
}

std::string ORBInstallerChecksum::generateSHA1(std::span<const std::uint8_t> data) {
  return platform::hexadecimalText(platform::CC_SHA1(data));
}
