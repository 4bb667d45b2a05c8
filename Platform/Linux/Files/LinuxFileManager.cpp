#include "Platform/Linux/Files/LinuxFileManager.h"

#include <cerrno>

#include "Platform/Linux/Files/CocoaFileErrors.h"
#include "Platform/Linux/Files/FileCopy.h"
#include "Platform/Linux/Files/FolderCreation.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"

namespace platform {
namespace {

// The system would cut such a path at the zero byte and use another file.
bool holdsZeroByte(std::string_view path) { return path.find('\0') != path.npos; }

std::string upToZeroByte(std::string_view path) {
  return std::string(path.substr(0, path.find('\0')));
}

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
  const auto read = platform::eachNameInFolder(name, each);
  if (!read) return std::unexpected(cocoaReadError(name, read.error().osError));
  return {};
}

}  // namespace platform
