#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/OSStatus.h"
#include "Platform/Values/Value.h"

namespace platform {

inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecCSUnsigned = -67062;         // carries no signature
inline constexpr OSStatus errSecCSSignatureFailed = -67061;  // is not what was signed
inline constexpr OSStatus errSecCSBadResource = -67054;      // a sealed resource is amiss
inline constexpr OSStatus errSecCSReqFailed = -67050;        // the signer is not accepted
inline constexpr OSStatus errSecCSBadObjectFormat = -67049;  // neither code nor a signature

// Why code is not valid, or why that can't be told.
struct CodeSigningFailure {
  OSStatus status = errSecCSBadObjectFormat;
  std::string reason;  // one line for people; names the file

  bool operator==(const CodeSigningFailure&) const = default;
};

template <typename T>
using CodeSigningResult = std::expected<T, CodeSigningFailure>;

inline std::unexpected<CodeSigningFailure> refuse(OSStatus status, std::string reason) {
  return std::unexpected(CodeSigningFailure{status, std::move(reason)});
}
inline std::unexpected<CodeSigningFailure> refuseResource(std::string reason) {
  return refuse(errSecCSBadResource, std::move(reason));
}

// The failure as the object that log lines show with `%@`: the domain "NSOSStatusErrorDomain", the
// status as its code, the reason as its description.
NSError errorObject(const CodeSigningFailure& failure);

// What the signer of code must be.
class SecRequirement {
 public:
  const std::string& text() const { return text_; }

 private:
  friend CodeSigningResult<SecRequirement> SecRequirementCreateWithString(std::string_view text);
  explicit SecRequirement(std::string text) : text_(std::move(text)) {}

  std::string text_;
};

// The only requirement here is "anchor apple generic": the signer's certificate leads to one of the
// platform's anchors. Blanks between its words don't count. Another text is errSecCSReqFailed.
CodeSigningResult<SecRequirement> SecRequirementCreateWithString(std::string_view text);

// Flags of SecStaticCode. A program has one architecture here, so that the first changes nothing;
// callers name it because their question includes it.
inline constexpr std::uint32_t kSecCSDefaultFlags = 0;
inline constexpr std::uint32_t kSecCSCheckAllArchitectures = 1;
inline constexpr std::uint32_t kSecCSSigningInformation = 2;

// Keys of the signing information.
inline constexpr std::string_view kSecCodeInfoIdentifier = "identifier";
inline constexpr std::string_view kSecCodeInfoCertificates = "certificates";
inline constexpr std::string_view kSecCodeInfoTimestamp = "signing-time";

// A program or a bundle on disk. Not for two threads at once.
class SecStaticCode {
 public:
  enum class Kind { kProgram, kBundle };

  virtual ~SecStaticCode() = default;
  virtual Kind kind() const = 0;

  // Whether the code is what its signer signed, and the signer is whom `requirement` asks for.
  // Reads the whole of the code unless an earlier check of the same unchanged files still stands;
  // blocks on the disk alone.
  virtual CodeSigningResult<void> SecStaticCodeCheckValidityWithErrors(
      std::uint32_t flags, const SecRequirement& requirement) = 0;

  // What the signature says: "identifier" (a string, absent where the signature names none), and
  // with kSecCSSigningInformation also "certificates" (an array of DER data, the signer's first)
  // and "signing-time" (a date, where there is one). After a successful check it is that of the
  // very signature that was checked; without one nothing of it is proven.
  virtual CodeSigningResult<Dictionary> SecCodeCopySigningInformation(std::uint32_t flags) = 0;
};

// Where static code comes from. Any thread may ask.
class CodeSignatures {
 public:
  virtual ~CodeSignatures() = default;

  // The code at `path`, which is absolute, without symbolic links: a folder is a bundle, a regular
  // file a program. Nothing of it is checked yet. What is neither is errSecCSBadObjectFormat, what
  // can't be looked at kErrnoStatusBase + errno.
  virtual CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) = 0;
};

}  // namespace platform
