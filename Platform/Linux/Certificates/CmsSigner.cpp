#include "Platform/Linux/Certificates/CmsSigner.h"

#include <utility>

#include <openssl/objects.h>

#include "Platform/Linux/Certificates/CmsAttributes.h"

namespace platform {
namespace {

bool addTime(CMS_SignerInfo* signer, std::chrono::sys_seconds time) {
  const std::unique_ptr<ASN1_TIME, OpenSslDeleter<ASN1_TIME_free>> value(
      ASN1_TIME_adj(nullptr, static_cast<std::time_t>(time.time_since_epoch().count()), 0, 0));
  return value && CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_signingTime, value->type,
                                              value.get(), -1) == 1;
}

bool addIdentifier(CMS_SignerInfo* signer, const std::string& identifier) {
  const ObjectIdentifier kind = identifierAttributeObject();
  return kind &&
         CMS_signed_add1_attr_by_OBJ(signer, kind.get(), V_ASN1_UTF8STRING, identifier.data(),
                                     static_cast<int>(identifier.size())) == 1;
}

bool addCertificateList(CMS_SignerInfo* signer, const SigningIdentity& identity) {
  const CertificateStack issuers(sk_X509_new_null());
  for (std::size_t i = 1; i < identity.chain.size(); ++i) {
    if (!issuers ||
        X509_add_cert(issuers.get(), identity.chain[i].get(), X509_ADD_FLAG_UP_REF) != 1) {
      return false;
    }
  }
  const EssHandle list(OSSL_ESS_signing_cert_v2_new_init(EVP_sha256(), identity.chain.front().get(),
                                                         issuers.get(), /*set_issuer_serial=*/0));
  unsigned char* bytes = nullptr;
  const int size = list ? i2d_ESS_SIGNING_CERT_V2(list.get(), &bytes) : -1;
  const OpenSslMemory<unsigned char> held(bytes);
  return size > 0 && CMS_signed_add1_attr_by_NID(signer, NID_id_smime_aa_signingCertificateV2,
                                                 V_ASN1_SEQUENCE, bytes, size) == 1;
}

bool addDigest(CMS_SignerInfo* signer, std::span<const std::uint8_t> digest) {
  return CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_contentType, V_ASN1_OBJECT,
                                     OBJ_nid2obj(NID_pkcs7_data), -1) == 1 &&
         CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_messageDigest, V_ASN1_OCTET_STRING,
                                     digest.data(), static_cast<int>(digest.size())) == 1;
}

}  // namespace

Result<Data> makeCmsSignature(const SigningIdentity& identity, const SigningOptions& options,
                              std::span<const std::uint8_t> sha256) {
  if (options.identifier && !isUsableIdentifier(*options.identifier)) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0,
                                 "an identifier has 1 to 255 bytes of UTF-8 without control "
                                 "characters"});
  }
  const unsigned int flags = CMS_PARTIAL | CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP;
  const CmsHandle cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
  if (!cms) return openSslFailure("making a signature");
  CMS_SignerInfo* const signer = CMS_add1_signer(cms.get(), identity.chain.front().get(),
                                                 identity.key.get(), EVP_sha256(), flags);
  bool done = signer && addDigest(signer, sha256) && addTime(signer, options.time) &&
              addCertificateList(signer, identity) &&
              (!options.identifier || addIdentifier(signer, *options.identifier));
  // CMS_add1_signer() has added the signer's own certificate.
  for (std::size_t i = 1; done && i < identity.chain.size(); ++i) {
    done = CMS_add1_cert(cms.get(), identity.chain[i].get()) == 1;
  }
  if (!done || CMS_SignerInfo_sign(signer) != 1) return openSslFailure("signing");
  unsigned char* bytes = nullptr;
  const int size = i2d_CMS_ContentInfo(cms.get(), &bytes);
  const OpenSslMemory<unsigned char> held(bytes);
  if (size <= 0) return openSslFailure("writing a signature");
  return Data(bytes, bytes + size);
}

}  // namespace platform
