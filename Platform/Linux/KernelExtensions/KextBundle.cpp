#include "Platform/Linux/KernelExtensions/KextBundle.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>

#include "Platform/Files/FileNames.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Linux/Files/PropertyListFile.h"
#include "Platform/Linux/KernelExtensions/ControlFolder.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/Shortage.h"

namespace platform {
namespace {

constexpr std::string_view kSuffix = ".kext";
constexpr std::size_t kMaxNameBytes = 255;

std::unexpected<Error> unusable(const std::string& infoPath, std::string_view why) {
  return std::unexpected(Error{ErrorCode::kInvalid, 0, fmt::format("{}: {}", infoPath, why)});
}

// Whether a file could not be read now, and may hold anything: for lack of descriptors or memory,
// by a fault of the disk, or because of another process's lease.
bool isUnread(const Error& error) {
  return isShortage(error.osError) || error.osError == EIO || error.osError == EAGAIN;
}

// The bundles at `place`: the bundle itself, or those in the folder.
Result<std::vector<std::string>> kextsAt(const std::string& place) {
  std::error_code error;
  if (std::filesystem::exists(place + "/Contents", error)) return std::vector{place};
  std::vector<std::string> paths;
  const auto names = namesInFolder(place, kMaxKextsInFolder);
  if (!names) {
    const int number = names.error().osError;
    if (number == ENOENT || number == ENOTDIR) return paths;
    return std::unexpected(names.error());
  }
  if (names->size() > kMaxKextsInFolder) {
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0,
              fmt::format("{}: has more than {} entries", place, kMaxKextsInFolder)});
  }
  for (const std::string& name : *names) {
    if (name.ends_with(kSuffix)) paths.push_back(place + "/" + name);
  }
  return paths;
}

}  // namespace

Result<KextBundle> readKextBundle(const std::string& path) {
  const std::string infoPath = path + "/Contents/Info.plist";
  const auto info = readPropertyListFile(infoPath);
  if (!info) return std::unexpected(info.error());
  const std::string* const identifier = (*info)["CFBundleIdentifier"].string();
  if (identifier == nullptr || !isPlainFileName(*identifier, kMaxNameBytes)) {
    return unusable(infoPath, "\"CFBundleIdentifier\" is not there, or no identifier");
  }
  const Value& program = (*info)["CFBundleExecutable"];
  const Value& module = (*info)[kKernelModuleKey];
  if (program.isNil()) {
    return unusable(
        infoPath,
        "expected \"CFBundleExecutable\" (a program in Contents/Linux, which offers the "
        "control of the extension, also of an \"OSKernelModule\")");
  }
  const auto isName = [](const Value& value) {
    return value.string() != nullptr && isPlainFileName(*value.string(), kMaxNameBytes);
  };
  if (!isName(program) || (!module.isNil() && !isName(module))) {
    return unusable(infoPath, "\"CFBundleExecutable\" or \"OSKernelModule\" is no name");
  }
  return KextBundle{path, *identifier,
                    fmt::format("{}{}{}", path, kProgramsFolder, *program.string()),
                    module.isNil() ? std::nullopt : std::optional(*module.string())};
}

Result<KextBundle> findKextBundle(const std::string& identifier,
                                  const std::vector<std::string>& folders) {
  std::string unreadable;
  std::optional<Error> unread;
  const auto look = [&](const std::string& path) -> std::optional<KextBundle> {
    auto bundle = readKextBundle(path);
    if (bundle && bundle->identifier == identifier) return *std::move(bundle);
    if (!bundle && unreadable.empty()) unreadable = fmt::format(" ({})", describe(bundle.error()));
    if (!bundle && !unread && isUnread(bundle.error())) unread = bundle.error();
    return std::nullopt;
  };
  const auto unchecked = [&](const Error& why) {
    return std::unexpected(
        uncheckedExtension(fmt::format("{}: can't be looked for: {}", identifier, describe(why))));
  };
  for (const std::string& folder : folders) {
    const auto paths = kextsAt(folder);
    if (!paths && isUnread(paths.error())) return unchecked(paths.error());
    if (!paths) return std::unexpected(paths.error());
    std::optional<KextBundle> found;
    for (const std::string& path : *paths) {
      auto bundle = look(path);
      if (!bundle) continue;
      if (found) {
        return std::unexpected(
            Error{ErrorCode::kInvalid, 0,
                  fmt::format("{}: {} and {} both claim to be it", identifier, found->path, path)});
      }
      found = std::move(bundle);
    }
    if (found) return *std::move(found);
    if (unread) return unchecked(*unread);
  }
  return std::unexpected(
      Error{ErrorCode::kNotFound, 0,
            fmt::format("{}: there is no such extension{}", identifier, unreadable)});
}

}  // namespace platform
