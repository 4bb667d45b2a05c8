#include "Platform/Linux/CodeSigning/BundleSeal.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/stat.h>

#include "Platform/Linux/CodeSigning/ContentDigest.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/PropertyLists/PropertyListLimits.h"

namespace platform {
namespace {

constexpr std::string_view kFiles = "files2";
constexpr std::string_view kHash = "hash2";
constexpr std::string_view kLink = "symlink";
constexpr std::string_view kSigned = "signed";
constexpr std::string_view kProgramFolder = "Contents/Linux/";
constexpr std::string_view kDetachedSuffix = ".p7s";
constexpr std::size_t kHashBytes = 32;

CodeSigningResult<Data> digestOfItem(const BundleContents::Item& item) {
  const auto file = openRegularFile(item.path);
  if (!file &&
      (file.error().code == ErrorCode::kNotFound || file.error().code == ErrorCode::kInvalid)) {
    return changedMeanwhile(describe(file.error()));  // It was a regular file a moment ago.
  }
  if (!file) return std::unexpected(failureOfSystemCall(item.path, file.error().osError));
  if (static_cast<std::uint64_t>(file->status.st_size) != item.size) {
    return changedMeanwhile(item.path + ": was changed while it was looked at");
  }
  return digestOfFile(file->get(), item.size, EVP_sha256(), item.path);
}

bool isProgram(const std::string& path) {
  return path.starts_with(kProgramFolder) && !path.ends_with(kDetachedSuffix);
}

CodeSigningResult<std::string> identifierOfProgram(const std::string& path) {
  auto statement = readProgramSignature(path);
  if (!statement) return std::unexpected(statement.error());
  if (statement->identifier && !statement->identifier->empty()) {
    return *std::move(statement->identifier);
  }
  return refuseResource(path + ": its signature has no identifier, so no seal can name it");
}

// The programs that a seal names by their signatures.
class SealedPrograms {
 public:
  // The program's identifier, or why the seal can't name this program by its signature.
  CodeSigningResult<std::string> add(const BundleContents& contents, const std::string& path) {
    const std::string& file = contents.items.find(path)->second.path;
    if (contents.items.contains(path + std::string(kDetachedSuffix))) {
      return refuseResource(file + ": the seal keeps " + file + std::string(kDetachedSuffix) +
                            " by its content, so no other program could replace this one");
    }
    auto identifier = identifierOfProgram(file);
    if (!identifier) return identifier;
    const auto [other, isNew] = pathsByIdentifier_.emplace(*identifier, path);
    if (!isNew) {
      return refuseResource(file + ": has the identifier \"" + *identifier + "\" as " +
                            other->second + " has, so either could take the other's place");
    }
    return identifier;
  }

 private:
  std::map<std::string, std::string> pathsByIdentifier_;
};

// std::nullopt if the entry is ill-formed.
std::optional<SealedItem> readItem(const Value& entry) {
  const Dictionary* const fields = entry.dictionary();
  if (!fields || fields->size() != 1) return std::nullopt;
  if (const Data* hash = entry[kHash].data(); hash && hash->size() == kHashBytes) {
    return SealedItem{*hash, {}, {}};
  }
  if (const std::string* text = entry[kLink].string(); text && !text->empty()) {
    return SealedItem{{}, *text, {}};
  }
  if (const std::string* identifier = entry[kSigned].string(); identifier && !identifier->empty()) {
    return SealedItem{{}, {}, *identifier};
  }
  return std::nullopt;
}

}  // namespace

CodeSigningResult<BundleSeal> readBundleSeal(std::span<const std::uint8_t> bytes,
                                             const std::string& name) {
  const auto list = readPropertyList(bytes, name);
  if (!list) return refuseResource(describe(list.error()));
  const Dictionary* const files = (*list)[kFiles].dictionary();
  if (!files || list->dictionary()->size() != 1) {
    return refuseResource(name + ": expected a dictionary with the one key \"files2\"");
  }
  BundleSeal seal;
  for (const auto& [path, entry] : *files) {
    auto item = readItem(entry);
    if (!item) {
      return refuseResource(
          name + ": \"" + path +
          "\": expected \"hash2\" with 32 bytes, or \"symlink\" or \"signed\" with a text");
    }
    seal.emplace(path, *std::move(item));
  }
  return seal;
}

CodeSigningResult<bool> isBundleSeal(int file, std::uint64_t size, std::uint8_t firstByte,
                                     const std::string& name) {
  constexpr std::uint8_t kElf = 0x7f;
  constexpr std::uint8_t kScript = '#';
  if (firstByte == kElf || firstByte == kScript || size > kMaxPropertyListBytes) return false;
  const auto bytes = readRange(file, 0, static_cast<std::size_t>(size), name);
  if (!bytes) return std::unexpected(bytes.error());
  return readBundleSeal(*bytes, name).has_value();
}

CodeSigningResult<Data> makeBundleSeal(const BundleContents& contents, SealPrograms programs) {
  Dictionary files;
  SealedPrograms sealedPrograms;
  for (const auto& [path, item] : contents.items) {
    if (item.isLink) {
      files.set(path, Dictionary{{std::string(kLink), item.linkText}});
      continue;
    }
    if (programs == SealPrograms::kBySignature && isProgram(path)) {
      auto identifier = sealedPrograms.add(contents, path);
      if (!identifier) return std::unexpected(identifier.error());
      files.set(path, Dictionary{{std::string(kSigned), *std::move(identifier)}});
      continue;
    }
    auto digest = digestOfItem(item);
    if (!digest) return std::unexpected(digest.error());
    files.set(path, Dictionary{{std::string(kHash), *std::move(digest)}});
  }
  auto bytes = writePropertyList(Dictionary{{std::string(kFiles), std::move(files)}},
                                 PropertyListFormat::kXml);
  if (!bytes) return refuseResource(describe(bytes.error()));
  return *std::move(bytes);
}

CodeSigningResult<void> checkBundleSeal(const BundleSeal& seal, const BundleContents& contents,
                                        const std::string& bundle,
                                        const CheckSealedProgram& checkProgram) {
  for (const auto& [path, item] : contents.items) {
    const auto sealed = seal.find(path);
    if (sealed == seal.end())
      return refuseResource(item.path + ": was added after the bundle was sealed");
    if (item.isLink == sealed->second.linkText.empty()) {
      return refuseResource(item.path + ": was a " + (item.isLink ? "file" : "symbolic link") +
                            " when the bundle was sealed");
    }
    if (item.linkText != sealed->second.linkText) {
      return refuseResource(item.path + ": leads elsewhere than when the bundle was sealed");
    }
  }
  for (const auto& [path, sealed] : seal) {
    if (!contents.items.contains(path)) {
      return refuseResource(bundle + "/" + path + ": is missing from the bundle");
    }
  }
  for (const auto& [path, item] : contents.items) {
    if (item.isLink) continue;
    const SealedItem& sealed = seal.find(path)->second;
    if (!sealed.identifier.empty()) {
      if (auto intact = checkProgram(item.path, sealed.identifier); !intact) return intact;
      continue;
    }
    const auto digest = digestOfItem(item);
    if (!digest) return std::unexpected(digest.error());
    if (*digest != sealed.sha256) {
      return refuseResource(item.path + ": was changed after the bundle was sealed");
    }
  }
  return {};
}

}  // namespace platform
