#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Certificates/CmsAttributes.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

// The largest number of certificates in a signature.
inline constexpr int kMaxSignatureCertificates = 16;

// A detached CMS signature with one signer. Checking it takes separate steps, so that each has its
// own reason for a failure: parse(), findSigner(), checkCertificateChain(), checkAttributes(),
// checkContent().
class CmsSignature {
 public:
  // Accepts signed data with exactly one signer, without embedded content, with a SHA-2 digest of
  // 256 bits or more, with well-formed attributes, and with nothing after it. The reason of every
  // failure, also of later calls, begins with `name`.
  static CodeSigningResult<CmsSignature> parse(std::span<const std::uint8_t> der, std::string name);

  const EVP_MD* digest() const { return digest_; }
  const SignedAttributes& attributes() const { return attributes_; }
  // The certificates in the signature, in its order.
  STACK_OF(X509) * certificates() const { return certificates_.get(); }

  // The signer's certificate, looked up in the signature and in `anchors`.
  CodeSigningResult<CertificateHandle> findSigner(STACK_OF(X509) * anchors) const;

  // Whether `signer` signed the attributes, and with them the certificates in the signature. It
  // says nothing without signed attributes. It costs little, so call it before the content is read:
  // a forged signature may bring the certificate of a trusted signer, which is no secret.
  CodeSigningResult<void> checkAttributes(X509* signer) const;

  // Whether the content with this digest is the signed one, after checkAttributes(). The content's
  // first byte counts if there are no signed attributes: content that begins with the tag of signed
  // attributes could be such attributes passed off as content.
  CodeSigningResult<void> checkContent(X509* signer, std::span<const std::uint8_t> contentDigest,
                                       std::uint8_t firstContentByte) const;

 private:
  CmsSignature() = default;

  CodeSigningResult<void> readSigner();
  CodeSigningResult<void> checkAlgorithms(const X509_ALGOR& digest, const X509_ALGOR& signature);
  CodeSigningResult<void> checkCertificateList(X509* signer) const;
  bool isSignatureOf(X509* signer, std::span<const std::uint8_t> contentDigest) const;
  std::unexpected<CodeSigningFailure> refuse(OSStatus status, const std::string& reason) const;

  std::string name_;
  CmsHandle cms_;
  CMS_SignerInfo* signer_ = nullptr;  // inside cms_
  const EVP_MD* digest_ = nullptr;    // a constant of OpenSSL's
  CertificateStack certificates_;
  SignedAttributes attributes_;
};

}  // namespace platform
