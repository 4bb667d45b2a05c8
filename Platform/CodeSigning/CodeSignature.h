#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/OSStatus.h"
#include "Platform/Values/Value.h"
#include "Platform/Values/VerifiedFile.h"

namespace platform {

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecCSUnsigned = -67062;         // has no signature
inline constexpr OSStatus errSecCSSignatureFailed = -67061;  // is not the signed content
inline constexpr OSStatus errSecCSBadResource = -67054;      // a sealed resource was changed
inline constexpr OSStatus errSecCSReqFailed = -67050;        // the signer is not accepted
inline constexpr OSStatus errSecCSBadObjectFormat = -67049;  // neither code nor a signature

// The reason why code is not valid, or can't be checked.
struct CodeSigningFailure {
  OSStatus status = errSecCSBadObjectFormat;
  std::string reason;  // one line for people; names the file

  bool operator==(const CodeSigningFailure&) const = default;
};

// The result of a check of code.
enum class CodeVerdict {
  kIntact,     // it is what a trusted signer signed
  kDamaged,    // it is not, or it lies where others can change it, or it is missing
  kNotSigned,  // it has no signature
  // Nothing is known about the code: the check could not be made, for lack of descriptors for
  // instance, or the files changed meanwhile. A later check may succeed. Such a result never stops
  // code that runs, and never lets code start.
  kUnknown,
};

// The verdict that the failure of a check means, which is not kIntact. A system call that failed
// tells something about the code only if its errno does: the path leads to no file, or to a file
// that can't be code, or its place is not trusted (EPERM).
CodeVerdict verdictOf(const CodeSigningFailure& failure);

template <typename T>
using CodeSigningResult = std::expected<T, CodeSigningFailure>;

inline std::unexpected<CodeSigningFailure> refuse(OSStatus status, std::string reason) {
  return std::unexpected(CodeSigningFailure{status, std::move(reason)});
}
inline std::unexpected<CodeSigningFailure> refuseResource(std::string reason) {
  return refuse(errSecCSBadResource, std::move(reason));
}

// The failure as an object for `%@` in log lines: the domain is "NSOSStatusErrorDomain", the code
// the status, the description the reason.
NSError errorObject(const CodeSigningFailure& failure);

// A requirement on the signer of code.
class SecRequirement {
 public:
  const std::string& text() const { return text_; }

 private:
  friend CodeSigningResult<SecRequirement> SecRequirementCreateWithString(std::string_view text);
  explicit SecRequirement(std::string text) : text_(std::move(text)) {}

  std::string text_;
};

// The only requirement here is "anchor apple generic": the signer's certificate leads to one of the
// platform's anchors. The number of blanks between its words does not matter. Any other text fails
// with errSecCSReqFailed.
CodeSigningResult<SecRequirement> SecRequirementCreateWithString(std::string_view text);

// Flags of SecStaticCode. A program has only one architecture here, so the second flag changes
// nothing; callers pass it for completeness. The last one is for code that is to run: its place
// must be trusted, too, and its path must be its real one.
inline constexpr std::uint32_t kSecCSDefaultFlags = 0;
inline constexpr std::uint32_t kSecCSCheckAllArchitectures = 1;
inline constexpr std::uint32_t kSecCSSigningInformation = 2;
inline constexpr std::uint32_t kSecCSCheckTrustedPlace = std::uint32_t{1} << 31;

// Keys of the signing information.
inline constexpr std::string_view kSecCodeInfoIdentifier = "identifier";
inline constexpr std::string_view kSecCodeInfoCertificates = "certificates";
inline constexpr std::string_view kSecCodeInfoTimestamp = "signing-time";

// A program or a bundle on disk. Only one thread may use it at a time.
class SecStaticCode {
 public:
  enum class Kind { kProgram, kBundle };

  virtual ~SecStaticCode() = default;
  virtual Kind kind() const = 0;

  // Whether the code is the signed content, and the signer meets `requirement`. Reads the whole
  // code unless an earlier check of the same unchanged files still holds. Blocks only on the disk.
  virtual CodeSigningResult<void> SecStaticCodeCheckValidityWithErrors(
      std::uint32_t flags, const SecRequirement& requirement) = 0;

  // The content of the signature: "identifier" (a string, absent if the signature has none), and
  // with kSecCSSigningInformation also "certificates" (an array of DER data, the signer's first)
  // and "signing-time" (a date, if there is one). After a successful check it is the content of the
  // very signature that was checked. Without a check nothing of it is proven.
  virtual CodeSigningResult<Dictionary> SecCodeCopySigningInformation(std::uint32_t flags) = 0;

  // The program file that the last check found valid. Nothing without such a check, and for a
  // bundle.
  virtual std::optional<VerifiedFile> verifiedFile() const = 0;
};

// Checks code that is to run, or that runs: its signer and its place.
CodeSigningResult<void> checkCodeThatRuns(SecStaticCode& code);

// The reason why a file stays as it was when it was verified.
enum class CodeProtection {
  kVerity,     // the file system compares all that is read from it with a digest (fs-verity)
  kImmutable,  // nobody can write it or replace it now
  kRecheck,    // the job host compares it with what was verified before each start
};
// For programs: "fs-verity", "immutable", "re-check".
std::string_view protectionWord(CodeProtection protection);
// For people: the end of "it is kept unchanged by ". `word` is one of the words above.
std::string_view describeProtection(std::string_view word);

// Makes static code. Any thread may call it.
class CodeSignatures {
 public:
  virtual ~CodeSignatures() = default;

  // The code to which `path` leads, as the system resolves it: a folder is a bundle, a regular file
  // a program. Nothing is checked yet. Fails with errSecCSBadObjectFormat for other kinds of files,
  // and with kErrnoStatusBase + errno if the path can't be examined.
  virtual CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) = 0;

  // The strongest protection that the file at `path` has now. Nothing if it can't be opened.
  virtual std::optional<CodeProtection> protectionOf(const std::string& path) = 0;
};

}  // namespace platform
