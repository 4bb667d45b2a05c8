#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

// The identifier of signed code is a signed attribute of its CMS signature: one UTF8String of 1 to
// kMaxIdentifierBytes without control characters. Its object identifier is in the arc 2.25, which
// anybody may use (ITU-T X.667): the number is the UUID a4a8b54b-451e-4c21-8198-776edea170fd.
inline constexpr const char* kIdentifierAttribute = "2.25.218869374260601596690184381525685006589";
inline constexpr std::size_t kMaxIdentifierBytes = 255;

// The attributes that a signer signed together with the content.
struct SignedAttributes {
  bool present = false;  // false for sign-file, which writes none
  std::vector<std::uint8_t> messageDigest;
  std::optional<std::string> identifier;
  std::optional<std::chrono::sys_seconds> signingTime;
  EssHandle signingCertificates;  // null if there is none
};

// Reads the attributes and checks their form: each known attribute occurs at most once and has one
// value. If there are any, the digest and the content's type are among them (RFC 5652, 5.3). The
// reason of an error continues a text that begins with the signature's name.
std::expected<SignedAttributes, std::string> readSignedAttributes(const CMS_SignerInfo* signer);

// Whether `text` is a valid identifier of code.
bool isUsableIdentifier(std::string_view text);

// The attribute's object identifier; null only if there is no memory.
ObjectIdentifier identifierAttributeObject();

// The time in a certificate or a signature, std::nullopt if it is ill-formed.
std::optional<std::chrono::sys_seconds> timeOfAsn1(const ASN1_TIME* time);

}  // namespace platform
