#include "Platform/Linux/CodeSigning/ProgramVerifier.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/CodeSigning/BundleSeal.h"
#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/ContentDigest.h"
#include "Platform/Linux/CodeSigning/SignedProgram.h"
#include "Platform/Linux/Files/FileProtection.h"

namespace platform {
namespace {

// Without the digest.
VerifiedFile verifiedFileOf(const SignedProgram& program, const struct stat& status, WallTime now) {
  VerifiedFile file;
  file.device = status.st_dev;
  file.inode = status.st_ino;
  file.size = static_cast<std::uint64_t>(status.st_size);
  file.changedSeconds = status.st_ctim.tv_sec;
  file.changedNanoseconds = static_cast<std::uint32_t>(status.st_ctim.tv_nsec);
  file.isSettled = !changedRecently(status, now);
  file.digestedBytes = program.payloadBytes;
  file.verity = verityDigestOf(program.file.get());
  return file;
}

// Notes in `facts` on what the verdict is based, also if it fails.
CodeSigningResult<VerifiedCode> verifyWithFacts(const std::string& path,
                                                const VerificationContext& context,
                                                FileFacts& facts) {
  if (auto trusted = context.place.check(path, facts); !trusted) {
    return std::unexpected(trusted.error());
  }
  const struct stat before = facts.back().status;
  auto program = openSignedProgram(path);
  if (!program) return std::unexpected(program.error());
  facts.insert(facts.end(), program->detachedFacts.begin(), program->detachedFacts.end());
  if (!isSameState(before, program->status)) {
    return changedMeanwhile(path + ": was replaced while it was looked at");
  }
  const auto isSeal =
      isBundleSeal(program->file.get(), program->payloadBytes, program->firstByte, path);
  if (!isSeal) return std::unexpected(isSeal.error());
  if (*isSeal) return refuse(errSecCSBadObjectFormat, path + ": is a bundle's list, not a program");
  Data digested;
  auto signature = verifySignature(program->signature, path, context,
                                   [&](const EVP_MD* kind) -> CodeSigningResult<DigestedContent> {
                                     auto digest = digestOfFile(program->file.get(),
                                                                program->payloadBytes, kind, path);
                                     if (!digest) return std::unexpected(digest.error());
                                     digested = *digest;
                                     return DigestedContent{*std::move(digest), program->firstByte};
                                   });
  if (!signature) return std::unexpected(signature.error());
  struct stat after{};
  if (::fstat(program->file.get(), &after) != 0) {
    return std::unexpected(failureOfSystemCall(path, errno));
  }
  if (!isSameState(before, after)) {
    return changedMeanwhile(path + ": was changed while it was read");
  }
  VerifiedCode code{*std::move(signature), facts};
  code.program = verifiedFileOf(*program, after, context.now);
  code.program->digestName = code.signature.statement.digest;
  code.program->digest = std::move(digested);
  return code;
}

}  // namespace

void dependOn(VerifiedCode& code, const VerifiedCode& part) {
  code.facts.insert(code.facts.end(), part.facts.begin(), part.facts.end());
  code.signature.notBefore = std::max(code.signature.notBefore, part.signature.notBefore);
  code.signature.notAfter = std::min(code.signature.notAfter, part.signature.notAfter);
}

CodeSigningResult<VerifiedCode> verifyProgramAlone(const std::string& path,
                                                   const VerificationContext& context) {
  FileFacts facts;
  auto code = verifyWithFacts(path, context, facts);
  if (!code) return std::unexpected(failureOfCheck(code.error(), facts, path));
  return code;
}

CodeSigningResult<VerifiedCode> verifyProgram(const std::string& path,
                                              const VerificationContext& context) {
  auto code = verifyProgramAlone(path, context);
  if (!code) return code;
  const std::string bundle = bundleAroundProgram(path);
  if (bundle.empty()) return code;
  const auto sealed = verifyBundle(bundle, context);
  if (!sealed) return std::unexpected(sealed.error());
  dependOn(*code, *sealed);
  return code;
}

CodeSigningResult<SignatureStatement> readProgramSignature(const std::string& path) {
  const auto program = openSignedProgram(path);
  if (!program) return std::unexpected(program.error());
  return readSignature(program->signature, path);
}

}  // namespace platform
