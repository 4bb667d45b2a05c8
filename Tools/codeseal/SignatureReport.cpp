#include "Tools/codeseal/SignatureReport.h"

#include <iterator>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/CmsAttributes.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace {

using namespace platform;

SignatureReport::Certificate describeCertificate(const Value& der) {
  SignatureReport::Certificate described;
  const Data* const bytes = der.data();
  if (!bytes) return described;
  const unsigned char* next = bytes->data();
  const CertificateHandle certificate(d2i_X509(nullptr, &next, static_cast<long>(bytes->size())));
  if (!certificate) {
    takeOpenSslError();
    return described;
  }
  described.subject = subjectOf(certificate.get());
  described.issuer = issuerOf(certificate.get());
  described.notBefore = timeOfAsn1(X509_get0_notBefore(certificate.get()));
  described.notAfter = timeOfAsn1(X509_get0_notAfter(certificate.get()));
  return described;
}

std::string textOf(const std::optional<std::chrono::sys_seconds>& time) {
  if (!time) return "-";
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(time->time_since_epoch().count()));
}

nlohmann::ordered_json jsonOf(const std::optional<std::chrono::sys_seconds>& time) {
  return time ? nlohmann::ordered_json(textOf(time)) : nlohmann::ordered_json();
}

}  // namespace

SignatureReport makeReport(const std::string& path,
                           const CodeSigningResult<SignatureStatement>& statement) {
  SignatureReport report;
  report.path = path;
  if (!statement) {
    report.status = statement.error().status;
    report.reason = statement.error().reason;
    return report;
  }
  report.identifier = statement->identifier;
  report.signingTime = statement->signingTime;
  report.digest = statement->digest;
  for (const Value& certificate : statement->certificates) {
    report.certificates.push_back(describeCertificate(certificate));
  }
  return report;
}

std::string asText(const SignatureReport& report, const std::string& verdict) {
  if (!report.reason.empty()) return fmt::format("{} ({})\n", report.reason, report.status);
  std::string text = fmt::format("{}: {}\n", report.path, verdict);
  const auto out = std::back_inserter(text);
  fmt::format_to(out, "  Identifier   {}\n", report.identifier.value_or("(null)"));
  fmt::format_to(out, "  Signed       {}\n", textOf(report.signingTime));
  fmt::format_to(out, "  Digest       {}\n", report.digest);
  for (const auto& certificate : report.certificates) {
    fmt::format_to(out, "  Certificate  {}, {} to {}\n               issued by {}\n",
                   certificate.subject, textOf(certificate.notBefore), textOf(certificate.notAfter),
                   certificate.issuer);
  }
  return text;
}

nlohmann::ordered_json asJson(const SignatureReport& report) {
  nlohmann::ordered_json json{{"path", report.path}, {"status", report.status}};
  if (!report.reason.empty()) {
    json["reason"] = report.reason;
    return json;
  }
  json["identifier"] = nullptr;
  if (report.identifier) json["identifier"] = *report.identifier;
  json["signingTime"] = jsonOf(report.signingTime);
  json["digest"] = report.digest;
  json["certificates"] = nlohmann::ordered_json::array();
  for (const auto& certificate : report.certificates) {
    json["certificates"].push_back({{"subject", certificate.subject},
                                    {"issuer", certificate.issuer},
                                    {"notBefore", jsonOf(certificate.notBefore)},
                                    {"notAfter", jsonOf(certificate.notAfter)}});
  }
  return json;
}
