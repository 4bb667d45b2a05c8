#include "Platform/Linux/Certificates/Revocations.h"

#include <algorithm>
#include <cstddef>

#include "Platform/Linux/Certificates/CertificateChain.h"

namespace platform {
namespace {

std::optional<std::uint8_t> digitValue(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
  if (digit >= 'A' && digit <= 'F') return static_cast<std::uint8_t>(digit - 'A' + 10);
  return std::nullopt;
}

std::optional<Sha256> sha256In(std::string_view line) {
  line.remove_prefix(line.rfind('=') + 1);  // Nothing if there is none: npos + 1 is 0.
  line = line.substr(0, line.find_first_of(" \t\r"));
  std::string digits(line);
  std::erase(digits, ':');
  Sha256 sha256{};
  if (digits.size() != 2 * sha256.size()) return std::nullopt;
  for (std::size_t i = 0; i < sha256.size(); ++i) {
    const auto high = digitValue(digits[2 * i]);
    const auto low = digitValue(digits[2 * i + 1]);
    if (!high || !low) return std::nullopt;
    sha256[i] = static_cast<std::uint8_t>(*high << 4 | *low);
  }
  return sha256;
}

bool isInList(X509* certificate, X509* issuer, X509_CRL* list) {
  if (X509_NAME_cmp(X509_CRL_get_issuer(list), X509_get_issuer_name(certificate)) != 0)
    return false;
  // An older authority may have had the same name.
  if (X509_CRL_verify(list, X509_get0_pubkey(issuer)) != 1) {
    takeOpenSslError();
    return false;
  }
  X509_REVOKED* entry = nullptr;
  return X509_CRL_get0_by_cert(list, &entry, certificate) == 1;  // 2: removed from the list again
}

}  // namespace

std::expected<void, std::size_t> addRevoked(std::string_view text, Revocations& revocations) {
  std::set<Sha256> found;
  std::size_t number = 0;
  while (!text.empty()) {
    ++number;
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.find_first_not_of(" \t\r") == line.npos || line.starts_with('#')) continue;
    const auto sha256 = sha256In(line);
    if (!sha256) return std::unexpected(number);
    found.insert(*sha256);
  }
  revocations.certificates.merge(found);
  return {};
}

std::optional<std::string> faultOfRevocation(X509* certificate, X509* issuer,
                                             const Revocations& revocations) {
  if (!revocations.certificates.empty() &&
      revocations.certificates.contains(CC_SHA256(derOfCertificate(certificate)))) {
    return "was revoked: its SHA-256 is in the folder of revoked certificates";
  }
  const bool isListed = issuer && std::ranges::any_of(revocations.lists, [&](const auto& list) {
                          return isInList(certificate, issuer, list.get());
                        });
  if (isListed) return "was revoked by its issuer";
  return std::nullopt;
}

}  // namespace platform
