#include "Platform/Linux/Certificates/CertificateChain.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Platform/Linux/Certificates/CertificateRules.h"
#include "Platform/Linux/Certificates/CmsAttributes.h"

namespace platform {
namespace {

std::unexpected<CodeSigningFailure> refuseChain(const std::string& name,
                                                const std::string& reason) {
  takeOpenSslError();
  return std::unexpected(CodeSigningFailure{errSecCSReqFailed, name + ": " + reason});
}

std::string fault(const X509* certificate, const std::string& what) {
  return fmt::format("the certificate \"{}\" {}", subjectOf(certificate), what);
}

bool contains(STACK_OF(X509) * certificates, X509* certificate) {
  for (int i = 0; i < sk_X509_num(certificates); ++i) {
    if (X509_cmp(sk_X509_value(certificates, i), certificate) == 0) return true;
  }
  return false;
}

std::string textOf(std::chrono::sys_seconds time) {
  return fmt::format("{:%Y-%m-%d %H:%M:%S} UTC", fmt::gmtime(time.time_since_epoch().count()));
}

std::string textOf(const X509_NAME* name) {
  constexpr std::size_t kMostBytes = 200;
  const BioHandle bio(BIO_new(BIO_s_mem()));
  if (!bio || X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0) {
    takeOpenSslError();
    return "?";
  }
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, std::min(static_cast<std::size_t>(std::max(size, 0L)), kMostBytes));
}

std::string reasonOfChain(X509_STORE_CTX* check, X509* signer, std::chrono::sys_seconds time) {
  X509* const current = X509_STORE_CTX_get_current_cert(check);
  const X509* const at = current ? current : signer;
  const int error = X509_STORE_CTX_get_error(check);
  switch (error) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return fmt::format("its signer \"{}\" leads to none of the anchors", subjectOf(signer));
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return fault(at, fmt::format("had expired on {}", textOf(time)));
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return fault(at, fmt::format("was not yet valid on {}", textOf(time)));
    default:  // OpenSSL's numbers are no enumeration.
      return fault(at, fmt::format("is refused: {}", X509_verify_cert_error_string(error)));
  }
}

// Rules that OpenSSL does not apply, or applies less strictly.
CodeSigningResult<void> checkRules(STACK_OF(X509) * chain, STACK_OF(X509) * anchors,
                                   const std::string& name) {
  const int last = sk_X509_num(chain) - 1;
  for (int i = 0; i <= last; ++i) {
    X509* const certificate = sk_X509_value(chain, i);
    if (const auto weak = faultOfKey(certificate))
      return refuseChain(name, fault(certificate, *weak));
    if (i == last || contains(anchors, certificate)) continue;
    if (const auto weak = faultOfDigest(certificate)) {
      return refuseChain(name, fault(certificate, *weak));
    }
  }
  for (int i = 1; i <= last; ++i) {
    X509* const issuer = sk_X509_value(chain, i);
    if (const auto wrong = faultOfIssuer(issuer)) return refuseChain(name, fault(issuer, *wrong));
  }
  X509* const signer = sk_X509_value(chain, 0);
  const auto standing =
      contains(anchors, signer) ? SignerStanding::kAnchor : SignerStanding::kIssued;
  if (const auto wrong = faultOfSigner(signer, standing)) {
    return refuseChain(name, fault(signer, *wrong));
  }
  return {};
}

CodeSigningResult<void> checkRevocations(STACK_OF(X509) * chain, const Revocations& revocations,
                                         const std::string& name) {
  const int count = sk_X509_num(chain);
  for (int i = 0; i < count; ++i) {
    X509* const certificate = sk_X509_value(chain, i);
    X509* const issuer = i + 1 < count ? sk_X509_value(chain, i + 1) : nullptr;
    if (const auto revoked = faultOfRevocation(certificate, issuer, revocations)) {
      return refuseChain(name, fault(certificate, *revoked));
    }
  }
  return {};
}

CodeSigningResult<CertificateChain> describeChain(STACK_OF(X509) * certificates,
                                                  const std::string& name) {
  CertificateChain chain{std::chrono::sys_seconds::min(), std::chrono::sys_seconds::max(), {}};
  for (int i = 0; i < sk_X509_num(certificates); ++i) {
    X509* const certificate = sk_X509_value(certificates, i);
    const auto from = timeOfAsn1(X509_get0_notBefore(certificate));
    const auto to = timeOfAsn1(X509_get0_notAfter(certificate));
    if (!from || !to) return refuseChain(name, fault(certificate, "has ill-formed dates"));
    chain.notBefore = std::max(chain.notBefore, *from);
    chain.notAfter = std::min(chain.notAfter, *to);
    chain.certificates.push_back(derOfCertificate(certificate));
  }
  return chain;
}

}  // namespace

CodeSigningResult<CertificateChain> checkCertificateChain(
    X509* signer, STACK_OF(X509) * extra, X509_STORE* store, STACK_OF(X509) * anchors,
    const Revocations& revocations, std::chrono::sys_seconds time, const std::string& name) {
  const CertificateCheck check(X509_STORE_CTX_new());
  if (!check || X509_STORE_CTX_init(check.get(), store, signer, extra) != 1) {
    return std::unexpected(CodeSigningFailure{
        kErrnoStatusBase + ENOMEM, name + ": its signer can't be checked: " + takeOpenSslError()});
  }
  X509_VERIFY_PARAM* const parameters = X509_STORE_CTX_get0_param(check.get());
  X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_PARTIAL_CHAIN);
  // OpenSSL's own purpose check accepts e-mail signers for code and refuses the right ones.
  X509_VERIFY_PARAM_set_purpose(parameters, X509_PURPOSE_ANY);
  X509_VERIFY_PARAM_set_depth(parameters, kMaxIntermediateCertificates);
  // checkRules() checks the strength, with reasons that name the accepted values.
  X509_VERIFY_PARAM_set_auth_level(parameters, 0);
  X509_VERIFY_PARAM_set_time(parameters, time.time_since_epoch().count());
  if (X509_verify_cert(check.get()) != 1) {
    if (X509_STORE_CTX_get_error(check.get()) == X509_V_ERR_OUT_OF_MEM) {
      return refuse(kErrnoStatusBase + ENOMEM,
                    name + ": its signer can't be checked: " + takeOpenSslError());
    }
    return refuseChain(name, reasonOfChain(check.get(), signer, time));
  }
  STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(check.get());
  if (auto checked = checkRules(chain, anchors, name); !checked) {
    return std::unexpected(checked.error());
  }
  if (auto checked = checkRevocations(chain, revocations, name); !checked) {
    return std::unexpected(checked.error());
  }
  return describeChain(chain, name);
}

Data derOfCertificate(X509* certificate) {
  unsigned char* bytes = nullptr;
  const int size = i2d_X509(certificate, &bytes);
  const OpenSslMemory<unsigned char> held(bytes);
  return size > 0 ? Data(bytes, bytes + size) : Data();
}

std::string subjectOf(const X509* certificate) {
  return textOf(X509_get_subject_name(certificate));
}

std::string issuerOf(const X509* certificate) { return textOf(X509_get_issuer_name(certificate)); }

}  // namespace platform
