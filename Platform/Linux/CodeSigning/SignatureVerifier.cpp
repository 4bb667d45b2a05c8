#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

#include <algorithm>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/CmsSignature.h"

namespace platform {
namespace {

// The clocks of the signer and of this machine may differ by this much.
constexpr std::chrono::minutes kClockDifference{5};

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
  const auto signedAt = signature->attributes().signingTime;
  if (signedAt && *signedAt > context.now + kClockDifference) {
    return refuse(errSecCSReqFailed,
                  fmt::format("{}: its signature is of {:%Y-%m-%d %H:%M:%S} UTC, which is yet to "
                              "come",
                              name, fmt::gmtime(signedAt->time_since_epoch().count())));
  }
  STACK_OF(X509)* const anchors = context.anchors.certificates.get();
  const auto signer = signature->findSigner(anchors);
  if (!signer) return std::unexpected(withRemarks(signer.error(), context.anchors));
  auto chain = checkCertificateChain(
      signer->get(), signature->certificates(), context.anchors.store.get(), anchors,
      context.anchors.revocations, signedAt.value_or(context.now), name);
  if (!chain) return std::unexpected(withRemarks(chain.error(), context.anchors));
  if (auto checked = signature->checkAttributes(signer->get()); !checked) {
    return std::unexpected(checked.error());
  }
  const auto digested = content(signature->digest());
  if (!digested) return std::unexpected(digested.error());
  if (auto checked = signature->checkContent(signer->get(), digested->digest, digested->firstByte);
      !checked) {
    return std::unexpected(checked.error());
  }
  // If the clock is set back, the signature may be of a time to come again.
  const auto notBefore =
      signedAt ? std::max(chain->notBefore, *signedAt - kClockDifference) : chain->notBefore;
  return VerifiedSignature{statementOf(*signature, std::move(chain->certificates)), notBefore,
                           chain->notAfter};
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
