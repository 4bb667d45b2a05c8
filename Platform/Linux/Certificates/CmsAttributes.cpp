#include "Platform/Linux/Certificates/CmsAttributes.h"

#include <algorithm>
#include <ctime>

#include <openssl/asn1.h>
#include <openssl/objects.h>

namespace platform {
namespace {

using Attribute = std::expected<const ASN1_TYPE*, std::string>;

// The only value of an attribute, null if there is none. A second attribute of the same kind, or a
// second value, would make it ambiguous which one the signer meant.
Attribute onlyValue(const CMS_SignerInfo* signer, const ASN1_OBJECT* kind, const char* name) {
  const int index = CMS_signed_get_attr_by_OBJ(signer, kind, -1);
  if (index < 0) return nullptr;
  X509_ATTRIBUTE* const attribute = CMS_signed_get_attr(signer, index);
  if (CMS_signed_get_attr_by_OBJ(signer, kind, index) >= 0 || !attribute ||
      X509_ATTRIBUTE_count(attribute) != 1) {
    return std::unexpected(std::string("has more or less than one ") + name);
  }
  return X509_ATTRIBUTE_get0_type(attribute, 0);
}

Attribute onlyValue(const CMS_SignerInfo* signer, int kind, const char* name) {
  return onlyValue(signer, OBJ_nid2obj(kind), name);
}

std::span<const std::uint8_t> bytesOfAttribute(const ASN1_STRING* text) {
  return {ASN1_STRING_get0_data(text), static_cast<std::size_t>(ASN1_STRING_length(text))};
}

std::expected<void, std::string> readDigest(const CMS_SignerInfo* signer,
                                            SignedAttributes& attributes) {
  const auto type = onlyValue(signer, NID_pkcs9_contentType, "content type");
  if (!type) return std::unexpected(type.error());
  if (!*type || (*type)->type != V_ASN1_OBJECT ||
      OBJ_obj2nid((*type)->value.object) != NID_pkcs7_data) {
    return std::unexpected("does not say that it signs data");
  }
  const auto digest = onlyValue(signer, NID_pkcs9_messageDigest, "digest");
  if (!digest) return std::unexpected(digest.error());
  if (!*digest || (*digest)->type != V_ASN1_OCTET_STRING) {
    return std::unexpected("has signed attributes without a digest");
  }
  const auto bytes = bytesOfAttribute((*digest)->value.octet_string);
  attributes.messageDigest.assign(bytes.begin(), bytes.end());
  return {};
}

std::expected<void, std::string> readTime(const CMS_SignerInfo* signer,
                                          SignedAttributes& attributes) {
  const auto time = onlyValue(signer, NID_pkcs9_signingTime, "signing time");
  if (!time) return std::unexpected(time.error());
  if (!*time) return {};
  const bool isTime = (*time)->type == V_ASN1_UTCTIME || (*time)->type == V_ASN1_GENERALIZEDTIME;
  if (isTime) attributes.signingTime = timeOfAsn1((*time)->value.asn1_string);
  if (!attributes.signingTime) return std::unexpected("has an ill-formed signing time");
  return {};
}

std::expected<void, std::string> readIdentifier(const CMS_SignerInfo* signer,
                                                SignedAttributes& attributes) {
  const ObjectIdentifier kind = identifierAttributeObject();
  if (!kind) return std::unexpected("can't be read: " + takeOpenSslError());
  const auto identifier = onlyValue(signer, kind.get(), "identifier");
  if (!identifier) return std::unexpected(identifier.error());
  if (!*identifier) return {};
  if ((*identifier)->type == V_ASN1_UTF8STRING) {
    const auto bytes = bytesOfAttribute((*identifier)->value.utf8string);
    std::string text(bytes.begin(), bytes.end());
    if (isUsableIdentifier(text)) attributes.identifier = std::move(text);
  }
  if (!attributes.identifier) return std::unexpected("has an ill-formed identifier");
  return {};
}

std::expected<void, std::string> readSigningCertificates(const CMS_SignerInfo* signer,
                                                         SignedAttributes& attributes) {
  const auto value =
      onlyValue(signer, NID_id_smime_aa_signingCertificateV2, "list of signing certificates");
  if (!value) return std::unexpected(value.error());
  if (!*value) return {};
  if ((*value)->type == V_ASN1_SEQUENCE) {
    const auto bytes = bytesOfAttribute((*value)->value.sequence);
    const unsigned char* next = bytes.data();
    attributes.signingCertificates.reset(
        d2i_ESS_SIGNING_CERT_V2(nullptr, &next, static_cast<long>(bytes.size())));
    takeOpenSslError();
  }
  if (!attributes.signingCertificates) {
    return std::unexpected("has an ill-formed list of signing certificates");
  }
  return {};
}

}  // namespace

std::expected<SignedAttributes, std::string> readSignedAttributes(const CMS_SignerInfo* signer) {
  SignedAttributes attributes;
  // OpenSSL returns -1 if the field is absent.
  attributes.present = CMS_signed_get_attr_count(signer) >= 0;
  if (!attributes.present) return attributes;
  for (const auto read : {readDigest, readTime, readIdentifier, readSigningCertificates}) {
    if (auto done = read(signer, attributes); !done) return std::unexpected(done.error());
  }
  return attributes;
}

bool isUsableIdentifier(std::string_view text) {
  if (text.empty() || text.size() > kMaxIdentifierBytes) return false;
  for (std::size_t at = 0; at < text.size();) {
    unsigned long character = 0;
    const int size = UTF8_getc(reinterpret_cast<const unsigned char*>(text.data()) + at,
                               static_cast<int>(text.size() - at), &character);
    const bool control = character < 0x20 || (character >= 0x7f && character < 0xa0);
    const bool separator = character == 0x2028 || character == 0x2029;
    if (size <= 0 || control || separator) return false;
    at += static_cast<std::size_t>(size);
  }
  return true;
}

ObjectIdentifier identifierAttributeObject() {
  return ObjectIdentifier(OBJ_txt2obj(kIdentifierAttribute, 1));
}

std::optional<std::chrono::sys_seconds> timeOfAsn1(const ASN1_TIME* time) {
  std::tm parts{};
  if (!time || ASN1_TIME_to_tm(time, &parts) != 1) {
    takeOpenSslError();
    return std::nullopt;
  }
  return std::chrono::sys_seconds(std::chrono::seconds(::timegm(&parts)));
}

}  // namespace platform
