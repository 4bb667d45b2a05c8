#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

#include <utility>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/CmsSignature.h"

namespace platform {
namespace {

// If no anchor fits, the administrator also needs to know which anchors could not be used.
CodeSigningFailure withRemarks(CodeSigningFailure failure, const AnchorSet& anchors) {
  for (const std::string& remark : anchors.remarks) failure.reason += " (" + remark + ")";
  return failure;
}

SignatureStatement statementOf(const CmsSignature& signature, Array certificates) {
  return {signature.attributes().identifier, signature.attributes().signingTime,
          EVP_MD_get0_name(signature.digest()), std::move(certificates)};
}

}  // namespace

CodeSigningResult<VerifiedSignature> verifySignature(std::span<const std::uint8_t> der,
                                                     const std::string& name,
                                                     const VerificationContext& context,
                                                     const DigestContent& content) {
  const auto signature = CmsSignature::parse(der, name);
  if (!signature) return std::unexpected(signature.error());
  STACK_OF(X509)* const anchors = context.anchors.certificates.get();
  const auto signer = signature->findSigner(anchors);
  if (!signer) return std::unexpected(withRemarks(signer.error(), context.anchors));
  auto chain = checkCertificateChain(
      signer->get(), signature->certificates(), context.anchors.store.get(), anchors,
      signature->attributes().signingTime.value_or(context.now), name);
  if (!chain) return std::unexpected(withRemarks(chain.error(), context.anchors));
  const auto digested = content(signature->digest());
  if (!digested) return std::unexpected(digested.error());
  if (auto checked = signature->checkContent(signer->get(), digested->digest, digested->firstByte);
      !checked) {
    return std::unexpected(checked.error());
  }
  return VerifiedSignature{statementOf(*signature, std::move(chain->certificates)),
                           chain->notBefore, chain->notAfter};
}

CodeSigningResult<SignatureStatement> readSignature(std::span<const std::uint8_t> der,
                                                    const std::string& name) {
  const auto signature = CmsSignature::parse(der, name);
  if (!signature) return std::unexpected(signature.error());
  Array certificates;
  const auto signer = signature->findSigner(nullptr);
  if (signer) certificates.push_back(derOfCertificate(signer->get()));
  for (int i = 0; i < sk_X509_num(signature->certificates()); ++i) {
    X509* const certificate = sk_X509_value(signature->certificates(), i);
    if (!signer || X509_cmp(certificate, signer->get()) != 0) {
      certificates.push_back(derOfCertificate(certificate));
    }
  }
  return statementOf(*signature, std::move(certificates));
}

}  // namespace platform
