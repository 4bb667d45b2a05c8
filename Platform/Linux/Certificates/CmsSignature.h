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

// The largest number of certificates that a signature may bring along.
inline constexpr int kMaxSignatureCertificates = 16;

// A detached CMS signature with one signer over bytes that are elsewhere. The steps of checking it
// are separate, so that each has its own reason: parse(), findSigner(), the chain (see
// CertificateChain.h), checkContent().
class CmsSignature {
 public:
  // Takes signed data with exactly one signer, without content of its own, with a digest of the
  // SHA-2 family of 256 bits or more, and with well-formed attributes; nothing after it. `name`
  // begins the reason of every failure, also later.
  static CodeSigningResult<CmsSignature> parse(std::span<const std::uint8_t> der, std::string name);

  const EVP_MD* digest() const { return digest_; }
  const SignedAttributes& attributes() const { return attributes_; }
  // What the signature brought along, in its order.
  STACK_OF(X509) * certificates() const { return certificates_.get(); }

  // The signer's certificate, among those brought along and `anchors`.
  CodeSigningResult<CertificateHandle> findSigner(STACK_OF(X509) * anchors) const;

  // Whether `signer` signed content with this digest, and the certificates that came along. The
  // content's first byte matters where there are no signed attributes: these begin with a byte of
  // their own, and must not pass for content.
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
