#pragma once

#include <array>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/x509.h>

#include "Platform/Digests/FileDigest.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

using RevocationList = std::unique_ptr<X509_CRL, OpenSslDeleter<X509_CRL_free>>;

// Certificates that are not trusted any more. A revocation counts whatever time a signature states,
// because that time is the signer's word, and a thief of the key can state any.
struct Revocations {
  std::set<Sha256> certificates;  // the SHA-256 of their DER
  std::vector<RevocationList> lists;
};

// Adds the SHA-256 values in a text: one a line, of 64 hexadecimal digits, also with colons between
// bytes. Before it may be a text that ends with "=", as OpenSSL prints it, after it anything behind
// a blank, as sha256sum prints it. Empty lines and those that begin with "#" are skipped. Returns
// the number of a line that holds none, and adds nothing then.
std::expected<void, std::size_t> addRevoked(std::string_view text, Revocations& revocations);

// Why a certificate is not trusted any more: its digest was revoked, or it is in a list that
// `issuer` signed. Without an issuer no list counts. A list counts also when it is out of date.
std::optional<std::string> faultOfRevocation(X509* certificate, X509* issuer,
                                             const Revocations& revocations);

}  // namespace platform
