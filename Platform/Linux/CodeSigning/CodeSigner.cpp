#include "Platform/Linux/CodeSigning/CodeSigner.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/CodeSigning/BundleSeal.h"
#include "Platform/Linux/CodeSigning/ContentDigest.h"
#include "Platform/Linux/CodeSigning/SignatureTrailer.h"
#include "Platform/Linux/Files/AttributeCopy.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Files/ReplacementFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kNewFolderMode = 0755;

Error signingError(const CodeSigningFailure& failure) {
  return Error{ErrorCode::kInvalid, 0, failure.reason};
}

// The size of the file without the signature at its end.
Result<std::uint64_t> payloadBytes(const RegularFile& opened, const std::string& path) {
  const auto size = static_cast<std::uint64_t>(opened.status.st_size);
  const auto endingBytes = static_cast<std::size_t>(std::min<std::uint64_t>(size, kTrailerBytes));
  const auto ending = readRange(opened.get(), size - endingBytes, endingBytes, path);
  if (!ending) return std::unexpected(signingError(ending.error()));
  const auto trailer = readSignatureTrailer(size, *ending);
  if (trailer) return trailer->payloadBytes;
  if (trailer.error() == TrailerFault::kAbsent) return size;
  return std::unexpected(Error{ErrorCode::kInvalid, 0,
                               path + ": " + std::string(describe(trailer.error())) +
                                   "; build the program anew before signing it"});
}

// A larger signature would be refused by every verifier.
Result<Data> boundedSignature(const std::string& path, const SigningIdentity& identity,
                              const SigningOptions& options, std::span<const std::uint8_t> digest) {
  auto signature = makeCmsSignature(identity, options, digest);
  if (signature && signature->size() > kMaxSignatureBytes) {
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0, path + ": its signature is larger than 65536 bytes"});
  }
  return signature;
}

Result<Data> signatureOver(const RegularFile& opened, std::uint64_t size, const std::string& path,
                           const SigningIdentity& identity, const SigningOptions& options) {
  const auto digest = digestOfFile(opened.get(), size, EVP_sha256(), path);
  if (!digest) return std::unexpected(signingError(digest.error()));
  return boundedSignature(path, identity, options, *digest);
}

// The signature would also be one of a bundle with this list.
Result<void> checkIsNoSeal(const RegularFile& opened, std::uint64_t size, const std::string& path) {
  if (size == 0) return {};
  const auto first = readRange(opened.get(), 0, 1, path);
  if (!first) return std::unexpected(signingError(first.error()));
  const auto isSeal = isBundleSeal(opened.get(), size, first->front(), path);
  if (!isSeal) return std::unexpected(signingError(isSeal.error()));
  if (*isSeal) return invalid(path + ": is a bundle's list, which is signed with the bundle");
  return {};
}

// Writes the file completely, but does not put it in place.
Result<ReplacementFile> writeNewFile(const std::string& path, std::span<const std::uint8_t> bytes,
                                     const struct stat& like) {
  auto file = ReplacementFile::createFor(path);
  if (!file) return file;
  if (auto done = file->append(bytes); !done) return std::unexpected(std::move(done.error()));
  if (auto done = file->setOwnerAndMode(like.st_uid, like.st_gid, kNewFileMode); !done)
    return std::unexpected(std::move(done.error()));
  return file;
}

}  // namespace

Result<void> signProgram(const std::string& path, const SigningIdentity& identity,
                         const SigningOptions& options) {
  const auto opened = openRegularFile(path);
  if (!opened) return std::unexpected(opened.error());
  const auto size = payloadBytes(*opened, path);
  if (!size) return std::unexpected(size.error());
  if (*size == 0) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, path + ": has nothing to sign"});
  }
  const auto signature = signatureOver(*opened, *size, path, identity, options);
  if (!signature) return std::unexpected(signature.error());
  auto file = ReplacementFile::createFor(path);
  if (!file) return std::unexpected(file.error());
  if (auto done = file->appendFrom(opened->get(), *size); !done) return done;
  if (auto done = file->append(*signature); !done) return done;
  const auto trailer = makeSignatureTrailer(static_cast<std::uint32_t>(signature->size()));
  if (auto done = file->append(trailer); !done) return done;
  const struct stat& status = opened->status;
  if (auto done = file->setOwnerAndMode(status.st_uid, status.st_gid, status.st_mode); !done) {
    return done;
  }
  if (auto done = copyExtendedAttributes(opened->get(), file->descriptor(), path); !done) {
    return done;
  }
  return file->commit();
}

Result<void> signDetached(const std::string& path, const SigningIdentity& identity,
                          const SigningOptions& options) {
  const auto opened = openRegularFile(path);
  if (!opened) return std::unexpected(opened.error());
  const auto size = static_cast<std::uint64_t>(opened->status.st_size);
  // A signature at the end of the file would take precedence.
  if (const auto payload = payloadBytes(*opened, path); !payload || *payload != size) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0,
              path + ": has a signature at its end, so that one beside it would not count"});
  }
  if (auto usable = checkIsNoSeal(*opened, size, path); !usable) return usable;
  const auto signature = signatureOver(*opened, size, path, identity, options);
  if (!signature) return std::unexpected(signature.error());
  auto file = writeNewFile(path + ".p7s", *signature, opened->status);
  if (!file) return std::unexpected(std::move(file.error()));
  return file->commit();
}

namespace {

// Both files are complete and on the disk before either is put in place, because a list without its
// signature is a broken seal.
Result<void> writeSeal(const std::string& path, const std::string& folder, const struct stat& like,
                       const SigningIdentity& identity, const SigningOptions& options,
                       SealPrograms programs) {
  const auto contents = listBundle(path);
  if (!contents) return std::unexpected(signingError(contents.error()));
  const auto list = makeBundleSeal(*contents, programs);
  if (!list) return std::unexpected(signingError(list.error()));
  const auto digest = digestOfBytes(*list, EVP_sha256(), path);
  if (!digest) return std::unexpected(signingError(digest.error()));
  const auto signature = boundedSignature(path, identity, options, *digest);
  if (!signature) return std::unexpected(signature.error());
  auto newList = writeNewFile(folder + "/" + std::string(kSealListName), *list, like);
  if (!newList) return std::unexpected(std::move(newList.error()));
  auto newSignature =
      writeNewFile(folder + "/" + std::string(kSealSignatureName), *signature, like);
  if (!newSignature) return std::unexpected(std::move(newSignature.error()));
  for (ReplacementFile* file : {&*newList, &*newSignature}) {
    if (auto done = file->synchronise(); !done) return done;
  }
  if (auto done = newList->commit(); !done) return done;
  return newSignature->commit();
}

}  // namespace

Result<void> signBundle(const std::string& path, const SigningIdentity& identity,
                        const SigningOptions& options, SealPrograms programs) {
  const std::string folder = sealFolderOfBundle(path);
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return std::unexpected(systemError(path));
  const bool isNew = ::mkdir(folder.c_str(), kNewFolderMode) == 0;
  if (!isNew && errno != EEXIST) return std::unexpected(systemError(folder));
  auto done = writeSeal(path, folder, status, identity, options, programs);
  if (!done && isNew) ::rmdir(folder.c_str());
  return done;
}

Result<bool> canCarrySignature(const std::string& path) {
  const auto opened = openRegularFile(path);
  if (!opened) return std::unexpected(opened.error());
  constexpr std::array<std::uint8_t, 4> kElf{0x7f, 'E', 'L', 'F'};
  if (opened->status.st_size < static_cast<off_t>(kElf.size())) return false;
  const auto start = readRange(opened->get(), 0, kElf.size(), path);
  if (!start) return std::unexpected(signingError(start.error()));
  return std::ranges::equal(*start, kElf);
}

}  // namespace platform
