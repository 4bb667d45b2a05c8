#include "JobHost/Definitions/DaemonFolder.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <set>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;

constexpr std::string_view kSuffix = ".plist";
// Far more than the largest definition takes as a file.
constexpr std::size_t kMaximumFileBytes = std::size_t{4} << 20;

struct Plists {
  std::set<std::string> names;  // the first ones
  std::size_t left = 0;         // how many were left out
};

Result<Plists> plistsIn(const std::string& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return Plists();
    return std::unexpected(platform::systemError(path));
  }
  if (!S_ISDIR(status.st_mode)) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, path + ": is not a folder"});
  }
  if (auto trust =
          platform::checkConfigurationTrust(path, status.st_uid, status.st_mode, ::geteuid());
      !trust) {
    return std::unexpected(trust.error());
  }
  Plists plists;
  const auto read = platform::eachNameInFolder(path, [&plists](std::string_view name) {
    if (!name.ends_with(kSuffix) || name.starts_with('.')) return true;
    plists.names.emplace(name);
    if (plists.names.size() <= kMaximumDaemonFiles) return true;
    // Leave out the last by name, so that the choice does not depend on the folder's order on disk.
    plists.names.erase(std::prev(plists.names.end()));
    ++plists.left;
    return true;
  });
  if (!read) return std::unexpected(read.error());
  return plists;
}

Result<JobDefinition> definitionIn(const std::string& path) {
  const auto file = platform::openRegularFile(path);
  if (!file) return std::unexpected(file.error());
  const struct stat& status = file->status;
  if (auto trust =
          platform::checkConfigurationTrust(path, status.st_uid, status.st_mode, ::geteuid());
      !trust) {
    return std::unexpected(trust.error());
  }
  const auto bytes = platform::readToEnd(file->get(), kMaximumFileBytes, path);
  if (!bytes) return std::unexpected(bytes.error());
  const auto contents = platform::readPropertyList(*bytes, path);
  if (!contents) return std::unexpected(contents.error());
  auto definition = parseJobDefinition(*contents);
  if (!definition) {
    definition.error().context.insert(0, path + ": ");
  } else {
    definition->file = path;
  }
  return definition;
}

}  // namespace

DaemonFolder readDaemonFolder(const std::string& path) {
  DaemonFolder folder;
  const auto plists = plistsIn(path);
  if (!plists) {
    folder.faults.push_back(platform::describe(plists.error()));
    return folder;
  }
  if (plists->left > 0) {
    folder.faults.push_back(fmt::format(
        "{}: expected at most {} files, found {}; those with names behind {} are not loaded", path,
        kMaximumDaemonFiles, kMaximumDaemonFiles + plists->left,
        platform::quotedInMessage(*plists->names.rbegin())));
  }
  for (const std::string& name : plists->names) {
    const std::string file = path + "/" + name;
    auto definition = definitionIn(file);
    if (!definition) {
      folder.faults.push_back(platform::describe(definition.error()));
    } else if (std::ranges::find(folder.definitions, definition->label, &JobDefinition::label) !=
               folder.definitions.end()) {
      folder.faults.push_back(fmt::format("{}: another file defines the job {}", file,
                                          platform::quotedInMessage(definition->label)));
    } else {
      folder.definitions.push_back(*std::move(definition));
    }
  }
  return folder;
}

}  // namespace jobhost
