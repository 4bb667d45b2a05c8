#include "Platform/Testing/Files/FakeFileReader.h"

#include <cassert>
#include <cerrno>
#include <utility>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

void FakeFileReader::addFile(const std::string& path, std::string content) {
  contents_[path] = std::move(content);
}

void FakeFileReader::addFolder(const std::string& path) { contents_[path] = std::nullopt; }

void FakeFileReader::addPropertyList(const std::string& path, const Value& value) {
  const auto bytes = writePropertyList(value, PropertyListFormat::kXml);
  assert(bytes);
  addFile(path, {bytes->begin(), bytes->end()});
}

Result<Value> FakeFileReader::propertyListAtPath(const std::string& path) {
  const auto found = contents_.find(path);
  if (found == contents_.end()) return std::unexpected(Error{ErrorCode::kNotFound, ENOENT, path});
  if (!found->second) return std::unexpected(Error{ErrorCode::kInvalid, EISDIR, path});
  return readPropertyList(*found->second, path);
}

}  // namespace platform
