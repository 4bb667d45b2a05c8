#include "Platform/Linux/Certificates/CmsSignature.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fmt/format.h>
#include <openssl/objects.h>

#include "Platform/Linux/Certificates/CmsEnvelope.h"

namespace platform {
namespace {

// The tag of signed attributes in the form that is signed (RFC 5652, 5.4).
constexpr std::uint8_t kSetTag = 0x31;

const EVP_MD* acceptedDigest(int algorithm) {
  switch (algorithm) {
    case NID_sha256:
      return EVP_sha256();
    case NID_sha384:
      return EVP_sha384();
    case NID_sha512:
      return EVP_sha512();
    default:  // OpenSSL's numbers are no enumeration.
      return nullptr;
  }
}

std::string algorithmName(const X509_ALGOR& algorithm) {
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, &algorithm);
  std::array<char, 80> name{};
  OBJ_obj2txt(name.data(), static_cast<int>(name.size()), object, 0);
  return name.data();
}

int algorithmNumber(const X509_ALGOR& algorithm) {
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, &algorithm);
  return OBJ_obj2nid(object);
}

}  // namespace

std::unexpected<CodeSigningFailure> CmsSignature::refuse(OSStatus status,
                                                         const std::string& reason) const {
  takeOpenSslError();
  return std::unexpected(CodeSigningFailure{status, name_ + ": its signature " + reason});
}

CodeSigningResult<CmsSignature> CmsSignature::parse(std::span<const std::uint8_t> der,
                                                    std::string name) {
  CmsSignature signature;
  signature.name_ = std::move(name);
  const unsigned char* next = der.data();
  signature.cms_.reset(d2i_CMS_ContentInfo(nullptr, &next, static_cast<long>(der.size())));
  if (!signature.cms_ || OBJ_obj2nid(CMS_get0_type(signature.cms_.get())) != NID_pkcs7_signed) {
    return signature.refuse(errSecCSBadObjectFormat, "is not CMS signed data");
  }
  if (next != der.data() + der.size()) {
    return signature.refuse(errSecCSBadObjectFormat, "is followed by something else");
  }
  if (CMS_is_detached(signature.cms_.get()) != 1 ||
      OBJ_obj2nid(CMS_get0_eContentType(signature.cms_.get())) != NID_pkcs7_data) {
    return signature.refuse(errSecCSBadObjectFormat,
                            "brings content of its own, so it is not one over this code");
  }
  signature.certificates_.reset(CMS_get1_certs(signature.cms_.get()));
  takeOpenSslError();
  if (sk_X509_num(signature.certificates_.get()) > kMaxSignatureCertificates) {
    return signature.refuse(errSecCSBadObjectFormat, fmt::format("brings more than {} certificates",
                                                                 kMaxSignatureCertificates));
  }
  if (auto read = signature.readSigner(); !read) return std::unexpected(read.error());
  if (!isConsistentEnvelope(der)) {
    return signature.refuse(errSecCSBadObjectFormat, "contradicts itself in its outer parts");
  }
  return signature;
}

CodeSigningResult<void> CmsSignature::readSigner() {
  STACK_OF(CMS_SignerInfo)* const signers = CMS_get0_SignerInfos(cms_.get());
  const int count = std::max(sk_CMS_SignerInfo_num(signers), 0);
  if (count != 1) {
    return refuse(errSecCSBadObjectFormat, fmt::format("has {} signers; it must have one", count));
  }
  signer_ = sk_CMS_SignerInfo_value(signers, 0);
  X509_ALGOR* digest = nullptr;
  X509_ALGOR* signature = nullptr;
  CMS_SignerInfo_get0_algs(signer_, nullptr, nullptr, &digest, &signature);
  if (auto checked = checkAlgorithms(*digest, *signature); !checked) return checked;
  auto attributes = readSignedAttributes(signer_);
  if (!attributes) return refuse(errSecCSBadObjectFormat, attributes.error());
  attributes_ = *std::move(attributes);
  return {};
}

CodeSigningResult<void> CmsSignature::checkAlgorithms(const X509_ALGOR& digest,
                                                      const X509_ALGOR& signature) {
  digest_ = acceptedDigest(algorithmNumber(digest));
  if (!digest_) {
    return refuse(errSecCSReqFailed,
                  fmt::format("uses the digest {}; accepted are SHA-256, SHA-384 and SHA-512",
                              algorithmName(digest)));
  }
  const int number = algorithmNumber(signature);
  int digestOfSignature = NID_undef;
  int key = NID_undef;
  // With plain RSA as the algorithm, the digest is named in the other field only.
  const bool accepted =
      number == NID_rsaEncryption || (OBJ_find_sigid_algs(number, &digestOfSignature, &key) == 1 &&
                                      digestOfSignature == EVP_MD_get_type(digest_));
  if (!accepted) {
    return refuse(errSecCSReqFailed, fmt::format("uses the algorithm {}, which is not accepted",
                                                 algorithmName(signature)));
  }
  return {};
}

CodeSigningResult<CertificateHandle> CmsSignature::findSigner(STACK_OF(X509) * anchors) const {
  for (STACK_OF(X509)* const from : {certificates_.get(), anchors}) {
    for (int i = 0; i < sk_X509_num(from); ++i) {
      X509* const certificate = sk_X509_value(from, i);
      if (CMS_SignerInfo_cert_cmp(signer_, certificate) != 0) continue;
      X509_up_ref(certificate);
      return CertificateHandle(certificate);
    }
  }
  return refuse(errSecCSReqFailed,
                "is by a signer whose certificate is neither in it nor among the anchors");
}

CodeSigningResult<void> CmsSignature::checkAttributes(X509* signer) const {
  if (!attributes_.present) return {};
  if (!isSignatureOf(signer, {})) {
    return refuse(errSecCSSignatureFailed,
                  "does not match its signer's key: it was changed or forged");
  }
  return checkCertificateList(signer);
}

CodeSigningResult<void> CmsSignature::checkContent(X509* signer,
                                                   std::span<const std::uint8_t> contentDigest,
                                                   std::uint8_t firstContentByte) const {
  if (attributes_.present) {
    if (std::ranges::equal(attributes_.messageDigest, contentDigest)) return {};
    return std::unexpected(
        CodeSigningFailure{errSecCSSignatureFailed, name_ + ": is not what was signed"});
  }
  if (firstContentByte == kSetTag) {
    return refuse(errSecCSBadObjectFormat, "may be one over another signature's attributes");
  }
  if (isSignatureOf(signer, contentDigest)) return {};
  return refuse(errSecCSSignatureFailed, "does not match: the code or the signature was changed");
}

bool CmsSignature::isSignatureOf(X509* signer, std::span<const std::uint8_t> contentDigest) const {
  EVP_PKEY* const key = X509_get0_pubkey(signer);
  if (attributes_.present) {
    X509_up_ref(signer);  // OpenSSL 3.0 takes a reference of its own, but wants it non-const.
    const CertificateHandle held(signer);
    CMS_SignerInfo_set1_signer_cert(signer_, held.get());
    return CMS_SignerInfo_verify(signer_) == 1;
  }
  const KeyContext context(EVP_PKEY_CTX_new(key, nullptr));
  const ASN1_OCTET_STRING* const value = CMS_SignerInfo_get0_signature(signer_);
  return context && value && EVP_PKEY_verify_init(context.get()) == 1 &&
         EVP_PKEY_CTX_set_signature_md(context.get(), digest_) == 1 &&
         EVP_PKEY_verify(context.get(), ASN1_STRING_get0_data(value),
                         static_cast<std::size_t>(ASN1_STRING_length(value)), contentDigest.data(),
                         contentDigest.size()) == 1;
}

CodeSigningResult<void> CmsSignature::checkCertificateList(X509* signer) const {
  if (!attributes_.signingCertificates) return {};
  // The list must name the signer's certificate first. Every other entry must be in the signature.
  const CertificateStack known(sk_X509_new_null());
  const auto add = [&](X509* certificate) {
    return known && X509_add_cert(known.get(), certificate, X509_ADD_FLAG_UP_REF) == 1;
  };
  bool complete = add(signer);
  for (int i = 0; i < sk_X509_num(certificates_.get()); ++i) {
    X509* const certificate = sk_X509_value(certificates_.get(), i);
    if (X509_cmp(certificate, signer) != 0) complete = complete && add(certificate);
  }
  if (!complete) return refuse(kErrnoStatusBase + ENOMEM, "can't be checked for lack of memory");
  if (OSSL_ESS_check_signing_certs(nullptr, attributes_.signingCertificates.get(), known.get(),
                                   1) != 1) {
    return refuse(errSecCSSignatureFailed,
                  "lacks certificates that were signed along with the code");
  }
  return {};
}

}  // namespace platform
