#include "Platform/Linux/CodeSigning/BundleVerifier.h"

#include <utility>

#include "Platform/Files/Bundle.h"
#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/CodeSigning/BundleSeal.h"
#include "Platform/Linux/CodeSigning/ContentDigest.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Linux/CodeSigning/SignatureTrailer.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/PropertyLists/PropertyListLimits.h"

namespace platform {
namespace {

// Reads one file of the seal and adds it to `facts`.
CodeSigningResult<std::string> readSealFile(const std::string& path, std::size_t mostBytes,
                                            OSStatus statusOfMissing, FileFacts& facts) {
  const auto file = openRegularFile(path);
  if (!file && file.error().code == ErrorCode::kNotFound) {
    return refuse(statusOfMissing, path + ": is missing, so the bundle has no seal");
  }
  if (!file) return std::unexpected(failureOfOpening(path, file.error()));
  auto bytes = readToEnd(file->get(), mostBytes, path);
  if (!bytes) return std::unexpected(failureOfOpening(path, bytes.error()));
  facts.push_back({path, FileFact::Covers::kContents, file->status});
  return *std::move(bytes);
}

std::span<const std::uint8_t> bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

CodeSigningResult<void> checkPlaces(const FileFacts& facts, const TrustedPlace& place) {
  for (const FileFact& fact : facts) {
    if (auto trusted = place.checkFile(fact.path, fact.status); !trusted) return trusted;
  }
  return {};
}

CodeSigningResult<void> checkIsBundleFolder(const std::string& path) {
  const auto status = fileStatus(path);
  if (!status) return std::unexpected(status.error());
  if (!S_ISDIR(status->st_mode)) {
    return refuse(errSecCSBadObjectFormat, path + ": is not a folder, so it is no bundle");
  }
  if (!isBundleName(path.substr(path.rfind('/') + 1))) return {};
  const auto contents = fileStatus(path + "/Contents");
  if (contents && S_ISDIR(contents->st_mode)) return {};
  return refuse(errSecCSBadObjectFormat, path + ": has no folder \"Contents\", so it is no bundle");
}

// Notes in `facts` on what the verdict is based, also if it fails.
CodeSigningResult<VerifiedCode> verifyBundleWithFacts(const std::string& path,
                                                      const VerificationContext& context,
                                                      FileFacts& facts) {
  if (auto trusted = context.place.check(path, facts); !trusted) {
    return std::unexpected(trusted.error());
  }
  if (auto usable = checkIsBundleFolder(path); !usable) return std::unexpected(usable.error());
  const std::string folder = sealFolderOfBundle(path) + "/";
  const auto signature = readSealFile(folder + std::string(kSealSignatureName), kMaxSignatureBytes,
                                      errSecCSUnsigned, facts);
  if (!signature) return std::unexpected(signature.error());
  const auto list = readSealFile(folder + std::string(kSealListName), kMaxPropertyListBytes,
                                 errSecCSBadResource, facts);
  if (!list) return std::unexpected(list.error());
  const std::string listPath = folder + std::string(kSealListName);
  auto verified = verifySignature(bytesOf(*signature), listPath, context,
                                  [&](const EVP_MD* kind) -> CodeSigningResult<DigestedContent> {
                                    auto digest = digestOfBytes(bytesOf(*list), kind, listPath);
                                    if (!digest) return std::unexpected(digest.error());
                                    return DigestedContent{
                                        *std::move(digest),
                                        list->empty() ? std::uint8_t{0} : bytesOf(*list).front()};
                                  });
  if (!verified) return std::unexpected(verified.error());
  const auto seal = readBundleSeal(bytesOf(*list), listPath);
  if (!seal) return std::unexpected(seal.error());
  const auto contents = listBundle(path);
  if (!contents) return std::unexpected(contents.error());
  facts.insert(facts.end(), contents->facts.begin(), contents->facts.end());
  if (auto trusted = checkPlaces(contents->facts, context.place); !trusted) {
    return std::unexpected(trusted.error());
  }
  VerifiedCode code{*std::move(verified), facts};
  const auto checkProgram = [&](const std::string& program,
                                const std::string& identifier) -> CodeSigningResult<void> {
    const auto alone = verifyProgramAlone(program, context);
    if (!alone) return std::unexpected(alone.error());
    if (alone->signature.statement.identifier != identifier) {
      return refuse(errSecCSBadResource, program + ": the bundle was sealed with a program \"" +
                                             identifier + "\", and this is another one");
    }
    dependOn(code, *alone);
    return {};
  };
  if (auto intact = checkBundleSeal(*seal, *contents, path, checkProgram); !intact) {
    return std::unexpected(intact.error());
  }
  return code;
}

}  // namespace

CodeSigningResult<VerifiedCode> verifyBundle(const std::string& path,
                                             const VerificationContext& context) {
  FileFacts facts;
  auto code = verifyBundleWithFacts(path, context, facts);
  if (!code) return std::unexpected(failureOfCheck(code.error(), facts, path));
  return code;
}

CodeSigningResult<SignatureStatement> readBundleSignature(const std::string& path) {
  if (auto usable = checkIsBundleFolder(path); !usable) return std::unexpected(usable.error());
  const std::string folder = sealFolderOfBundle(path) + "/";
  FileFacts facts;
  const auto signature = readSealFile(folder + std::string(kSealSignatureName), kMaxSignatureBytes,
                                      errSecCSUnsigned, facts);
  if (!signature) return std::unexpected(signature.error());
  return readSignature(bytesOf(*signature), folder + std::string(kSealListName));
}

}  // namespace platform
