#include "Platform/Linux/Files/LinuxFileManager.h"

#include <cerrno>

#include "Platform/Linux/Files/CocoaFileErrors.h"
#include "Platform/Linux/Files/FileCopy.h"
#include "Platform/Linux/Files/FolderCreation.h"
#include "Platform/Linux/Files/FolderHandle.h"

namespace platform {
namespace {

// The system would cut such a path at the zero byte and use another file.
bool holdsZeroByte(std::string_view path) { return path.find('\0') != path.npos; }

std::string upToZeroByte(std::string_view path) {
  return std::string(path.substr(0, path.find('\0')));
}

bool isSelfOrParent(std::string_view name) { return name == "." || name == ".."; }

}  // namespace

Result<void, NSError> LinuxFileManager::createDirectory(std::string_view path,
                                                        const Dictionary* attributes) {
  if (holdsZeroByte(path)) return std::unexpected(cocoaWriteError(upToZeroByte(path), EINVAL));
  return createFolders(std::string(path), attributes);
}

Result<void, NSError> LinuxFileManager::overwriteWithCopy(std::string_view source,
                                                          std::string_view destination) {
  if (holdsZeroByte(source)) return std::unexpected(cocoaReadError(upToZeroByte(source), EINVAL));
  if (holdsZeroByte(destination)) {
    return std::unexpected(cocoaWriteError(upToZeroByte(destination), EINVAL));
  }
  return overwriteWithCopyOfFile(std::string(source), std::string(destination));
}

Result<void, NSError> LinuxFileManager::eachNameInDirectory(std::string_view path,
                                                            const EachName& each) {
  const std::string name = upToZeroByte(path);
  if (holdsZeroByte(path)) return std::unexpected(cocoaReadError(name, EINVAL));
  const FolderHandle folder(::opendir(name.c_str()));
  if (!folder) return std::unexpected(cocoaReadError(name, errno));
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(folder.get());
    if (!entry && errno != 0) return std::unexpected(cocoaReadError(name, errno));
    if (!entry) return {};
    if (!isSelfOrParent(entry->d_name) && !each(entry->d_name)) return {};
  }
}

}  // namespace platform
