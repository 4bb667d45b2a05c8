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
// kMaxIdentifierBytes without control characters. Its object identifier stands in the arc 2.25,
// which is everybody's (ITU-T X.667): the number is the UUID a4a8b54b-451e-4c21-8198-776edea170fd.
inline constexpr const char* kIdentifierAttribute = "2.25.218869374260601596690184381525685006589";
inline constexpr std::size_t kMaxIdentifierBytes = 255;

// What a signer put under the signature besides the content.
struct SignedAttributes {
  bool present = false;  // sign-file writes none at all
  std::vector<std::uint8_t> messageDigest;
  std::optional<std::string> identifier;
  std::optional<std::chrono::sys_seconds> signingTime;
  EssHandle signingCertificates;  // null where there is none
};

// Reads and checks the attributes' form: each of those that count here at most once and with one
// value, and where there are any, the digest and the content's type among them, as CMS demands.
// The error's reason is for a text that begins with the signature's name.
std::expected<SignedAttributes, std::string> readSignedAttributes(const CMS_SignerInfo* signer);

// Whether this may be the identifier of code.
bool isUsableIdentifier(std::string_view text);

// The attribute's object identifier; null only without memory.
ObjectIdentifier identifierAttributeObject();

// The time that a certificate or a signature holds, nothing where it is ill-formed.
std::optional<std::chrono::sys_seconds> timeOfAsn1(const ASN1_TIME* time);

}  // namespace platform
