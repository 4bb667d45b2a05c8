#include "Platform/Testing/Files/FakeFileManager.h"

#include <cstdlib>
#include <utility>

namespace platform {
namespace {

std::string_view withoutSlashesAtEnd(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path;
}

std::string_view folderOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

void FakeFileManager::addFile(std::string_view path, std::string content, Dictionary attributes) {
  addFolder(folderOf(path));
  add(path, Node{false, std::move(content), std::move(attributes), {}});
}

void FakeFileManager::addFolder(std::string_view path) {
  if (!makeFolders(path, nullptr)) std::abort();
}

const FakeFileManager::Node* FakeFileManager::find(std::string_view path) const {
  const auto found = nodes_.find(withoutSlashesAtEnd(path));
  return found == nodes_.end() ? nullptr : &found->second;
}

void FakeFileManager::failAt(std::string path, std::int64_t code) {
  failures_[std::move(path)] = code;
}

NSError FakeFileManager::failure(std::int64_t code, std::string_view path) const {
  return {NSCocoaErrorDomain, code, std::string(path) + ": failed"};
}

std::optional<NSError> FakeFileManager::madeToFail(std::string_view path) const {
  const auto found = failures_.find(withoutSlashesAtEnd(path));
  if (found == failures_.end()) return std::nullopt;
  return failure(found->second, path);
}

void FakeFileManager::add(std::string_view path, Node node) {
  path = withoutSlashesAtEnd(path);
  const bool isNew = nodes_.insert_or_assign(std::string(path), std::move(node)).second;
  if (!isNew) return;
  nodes_.find(folderOf(path))->second.names.emplace_back(path.substr(path.rfind('/') + 1));
}

// First checks that everything can be made, so that a failure makes nothing.
Result<void, NSError> FakeFileManager::makeFolders(std::string_view path,
                                                   const Dictionary* attributes) {
  path = withoutSlashesAtEnd(path);
  std::vector<std::string_view> missing;
  for (std::string_view folder = path;; folder = folderOf(folder)) {
    if (const auto made = madeToFail(folder)) return std::unexpected(*made);
    const Node* const there = find(folder);
    if (there && there->isFolder) break;
    if (there) {
      return std::unexpected(
          failure(folder == path ? NSFileWriteUnknownError : NSFileNoSuchFileError, folder));
    }
    missing.push_back(folder);
  }
  for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
    add(*folder, Node{true, {}, attributes ? *attributes : Dictionary(), {}});
  }
  return {};
}

Result<void, NSError> FakeFileManager::createDirectory(std::string_view path,
                                                       const Dictionary* attributes) {
  if (path.empty()) return std::unexpected(failure(NSFileNoSuchFileError, path));
  if (path.find('\0') != path.npos) return std::unexpected(failure(NSFileWriteUnknownError, path));
  return makeFolders(path, attributes);
}

Result<void, NSError> FakeFileManager::overwriteWithCopy(std::string_view source,
                                                         std::string_view destination) {
  if (const auto made = madeToFail(source)) return std::unexpected(*made);
  if (source.find('\0') != source.npos) {
    return std::unexpected(failure(NSFileReadUnknownError, source));
  }
  const Node* const from = find(source);
  if (!from) return std::unexpected(failure(NSFileReadNoSuchFileError, source));
  if (from->isFolder) return std::unexpected(failure(NSFileReadUnknownError, source));
  if (const auto made = madeToFail(destination)) return std::unexpected(*made);
  const Node* const folder = find(folderOf(destination));
  if (!folder || !folder->isFolder) {
    return std::unexpected(failure(NSFileNoSuchFileError, destination));
  }
  const Node* const there = find(destination);
  if ((there && there->isFolder) || destination.find('\0') != destination.npos) {
    return std::unexpected(failure(NSFileWriteUnknownError, destination));
  }
  add(destination, Node(*from));
  return {};
}

Result<void, NSError> FakeFileManager::eachNameInDirectory(std::string_view path,
                                                           const EachName& each) {
  if (const auto made = madeToFail(path)) return std::unexpected(*made);
  if (path.find('\0') != path.npos) return std::unexpected(failure(NSFileReadUnknownError, path));
  const Node* const folder = path.empty() ? nullptr : find(path);
  if (!folder || !folder->isFolder) {
    return std::unexpected(failure(NSFileReadNoSuchFileError, path));
  }
  for (const std::string& name : folder->names) {
    if (!each(name)) break;
  }
  return {};
}

}  // namespace platform
