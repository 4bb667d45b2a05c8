#include "Platform/Linux/Files/CocoaFileErrors.h"

#include <cerrno>
#include <system_error>

#include "Platform/Files/FileManager.h"

namespace platform {
namespace {

CocoaFileError codeOfReading(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return NSFileReadNoSuchFileError;
    case EACCES:
    case EPERM:
      return NSFileReadNoPermissionError;
    default:
      return NSFileReadUnknownError;
  }
}

CocoaFileError codeOfWriting(int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return NSFileNoSuchFileError;
    case EACCES:
    case EPERM:
      return NSFileWriteNoPermissionError;
    case ENOSPC:
    case EDQUOT:
      return NSFileWriteOutOfSpaceError;
    case EROFS:
      return NSFileWriteVolumeReadOnlyError;
    default:
      return NSFileWriteUnknownError;
  }
}

NSError cocoaError(CocoaFileError code, const std::string& path, int errorNumber) {
  return {NSCocoaErrorDomain, code, path + ": " + std::generic_category().message(errorNumber)};
}

}  // namespace

NSError cocoaReadError(const std::string& path, int errorNumber) {
  return cocoaError(codeOfReading(errorNumber), path, errorNumber);
}

NSError cocoaWriteError(const std::string& path, int errorNumber) {
  return cocoaError(codeOfWriting(errorNumber), path, errorNumber);
}

}  // namespace platform
