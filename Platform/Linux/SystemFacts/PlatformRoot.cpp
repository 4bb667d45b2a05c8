#include "Platform/Linux/SystemFacts/PlatformRoot.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/PropertyListFile.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/PropertyLists/PropertyList.h"

namespace platform {
namespace {

constexpr std::string_view kConfigurationFile = "etc/vantor/platform.plist";
constexpr std::size_t kMaximumConfigurationBytes = 64 * 1024;

std::string configurationPath(std::string_view root) {
  return pathBelowRoot(root, kConfigurationFile);
}

}  // namespace

Result<std::string> platformRootOfExecutable(std::string_view executablePath) {
  std::string_view folder = executablePath;
  for (std::size_t slash; (slash = folder.rfind('/')) != folder.npos;) {
    folder = folder.substr(0, slash);
    const std::string root(folder.empty() ? "/" : folder);
    const std::string file = configurationPath(root);
    struct stat status{};
    // A symbolic link in the file's place counts, too: it is refused later and not passed over.
    if (::lstat(file.c_str(), &status) == 0) return root;
    if (errno != ENOENT && errno != ENOTDIR) {
      return std::unexpected(systemError("looking for the platform root: " + file));
    }
  }
  return "/";
}

Result<std::string> platformRootAt(const std::string& folder) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(folder.c_str(), nullptr),
                                                             &std::free);
  if (!resolved) {
    const bool isMissing = errno == ENOENT || errno == ENOTDIR;
    return std::unexpected(systemError("the platform root " + folder,
                                       isMissing ? ErrorCode::kNotFound : ErrorCode::kSystem));
  }
  std::string root(resolved.get());
  const std::string file = configurationPath(root);
  struct stat status{};
  if (root == "/" || ::lstat(file.c_str(), &status) == 0) return root;
  if (errno != ENOENT && errno != ENOTDIR) return std::unexpected(systemError(file));
  return std::unexpected(
      Error{ErrorCode::kInvalid, 0,
            fmt::format("{} is no platform root: it has no {}", root, kConfigurationFile)});
}

Result<void> checkConfigurationTrust(const std::string& file, uid_t owner, mode_t mode,
                                     uid_t caller) {
  const auto refuse = [&](std::string text) {
    return std::unexpected(
        Error{ErrorCode::kDenied, 0, fmt::format("{}: not trusted: {}", file, text)});
  };
  if (owner != 0 && owner != caller) {
    const std::string accepted = caller == 0 ? "root" : fmt::format("root or uid {}", caller);
    return refuse(fmt::format("it belongs to uid {}; give it to {} (chown)", owner, accepted));
  }
  if ((mode & (S_IWGRP | S_IWOTH)) != 0) {
    return refuse(
        fmt::format("others than its owner can write it (mode {:04o}); forbid it with chmod go-w",
                    mode & 07777u));
  }
  return {};
}

Result<PlatformConfiguration> readPlatformConfiguration(const std::string& root) {
  const std::string path = configurationPath(root);
  const auto file = openRegularFile(path);
  if (!file && file.error().code == ErrorCode::kNotFound) {
    return defaultPlatformConfiguration(root);
  }
  if (!file) return std::unexpected(file.error());
  const struct stat& status = file->status;
  const auto trust = checkConfigurationTrust(path, status.st_uid, status.st_mode, ::geteuid());
  if (!trust) return std::unexpected(trust.error());
  const auto bytes = readToEnd(file->get(), kMaximumConfigurationBytes, path);
  if (!bytes) return std::unexpected(bytes.error());
  const auto contents = readPropertyList(*bytes, path);
  if (!contents) return std::unexpected(contents.error());
  return parsePlatformConfiguration(*contents, path, root);
}

Result<Bundle> bundleOfExecutable(std::string_view executablePath) {
  BundleLayout layout = bundleLayoutOfExecutable(executablePath);
  const auto contents = readPropertyListFile(layout.infoPath);
  if (!contents && contents.error().code == ErrorCode::kNotFound) {
    return Bundle(std::move(layout), Dictionary());
  }
  if (!contents) return std::unexpected(contents.error());
  const Dictionary* const info = contents->dictionary();
  if (!info) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0,
                                 fmt::format("{}: expected a dictionary, found an {}",
                                             layout.infoPath, className(*contents))});
  }
  return Bundle(std::move(layout), *info);
}

}  // namespace platform
