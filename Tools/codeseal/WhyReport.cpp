#include "Tools/codeseal/WhyReport.h"

#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <openssl/x509.h>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/CodeSigning/BundleVerifier.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"

namespace {

using namespace platform;

std::string inWords(const CodeSigningFailure& failure) {
  switch (verdictOf(failure)) {
    case CodeVerdict::kIntact:
      return "intact";
    case CodeVerdict::kDamaged:
      return "damaged";
    case CodeVerdict::kNotSigned:
      return "not signed";
    case CodeVerdict::kUnknown:
      return "unknown";
  }
  return {};
}

std::string signerOf(const SignatureStatement& statement) {
  const Data* const der =
      statement.certificates.empty() ? nullptr : statement.certificates.front().data();
  if (!der) return "not known: its certificate is not in the signature";
  const unsigned char* next = der->data();
  const CertificateHandle certificate(d2i_X509(nullptr, &next, static_cast<long>(der->size())));
  return certificate ? subjectOf(certificate.get()) : "not known";
}

void addSignature(std::vector<WhyLine>& lines,
                  const CodeSigningResult<SignatureStatement>& statement) {
  if (!statement) {
    lines.push_back({"Signature", statement.error().reason});
    return;
  }
  lines.push_back({"Signature", "is there, and well-formed"});
  lines.push_back({"Signer", signerOf(*statement)});
  lines.push_back(
      {"Signed", statement->signingTime
                     ? fmt::format("{:%Y-%m-%d %H:%M:%S} UTC",
                                   fmt::gmtime(statement->signingTime->time_since_epoch().count()))
                     : "at no stated time, so the certificates must be valid now"});
}

void addAnchors(std::vector<WhyLine>& lines, const AnchorSet& anchors) {
  lines.push_back({"Anchors", fmt::format("{} certificates, {} lists of revoked ones, {} revoked "
                                          "by their SHA-256",
                                          sk_X509_num(anchors.certificates.get()),
                                          anchors.revocations.lists.size(),
                                          anchors.revocations.certificates.size())});
  for (const std::string& remark : anchors.remarks) lines.push_back({"", remark});
  if (anchors.unread) lines.push_back({"", anchors.unread->reason});
}

}  // namespace

std::vector<WhyLine> explainVerdict(LinuxCodeSignatures& signatures, const std::string& path) {
  std::vector<WhyLine> lines;
  std::error_code error;
  const auto kind = std::filesystem::is_directory(path, error) ? SecStaticCode::Kind::kBundle
                                                               : SecStaticCode::Kind::kProgram;
  const auto verdict = signatures.check(path, kind);
  lines.push_back({"Verdict", verdict ? "intact" : inWords(verdict.error())});
  const auto place = signatures.checkPlace(path);
  lines.push_back({"Place", place ? "trusted" : place.error().reason});
  addSignature(lines, kind == SecStaticCode::Kind::kBundle ? readBundleSignature(path)
                                                           : readProgramSignature(path));
  addAnchors(lines, *signatures.anchors());
  const std::string bundle = bundleAroundProgram(path);
  if (!bundle.empty()) {
    const auto around = signatures.check(bundle, SecStaticCode::Kind::kBundle);
    lines.push_back({"Bundle", around ? bundle + " is intact" : around.error().reason});
  }
  if (!verdict) lines.push_back({"Refused", verdict.error().reason});
  return lines;
}

std::string asText(const std::vector<WhyLine>& lines) {
  std::string text;
  for (const WhyLine& line : lines) {
    fmt::format_to(std::back_inserter(text), "  {:<10} {}\n", line.question, line.answer);
  }
  return text;
}
