#include "Platform/Linux/Certificates/CmsEnvelope.h"

#include <algorithm>
#include <optional>

#include <openssl/asn1.h>

#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {
namespace {

using Bytes = std::span<const std::uint8_t>;

struct Element {
  int tag;
  int tagClass;
  Bytes whole;
  Bytes content;
};

// Takes the first element off `rest`. Accepts only definite lengths, as DER demands.
std::optional<Element> take(Bytes& rest) {
  const unsigned char* at = rest.data();
  long size = 0;
  Element element{};
  const int kind =
      ASN1_get_object(&at, &size, &element.tag, &element.tagClass, static_cast<long>(rest.size()));
  if ((kind & 0x80) != 0 || (kind & 1) != 0) {
    takeOpenSslError();
    return std::nullopt;
  }
  const auto header = static_cast<std::size_t>(at - rest.data());
  const std::size_t total = header + static_cast<std::size_t>(size);
  element.whole = rest.first(total);
  element.content = rest.subspan(header, static_cast<std::size_t>(size));
  rest = rest.subspan(total);
  return element;
}

std::optional<Element> take(Bytes& rest, int tag) {
  auto element = take(rest);
  const bool wanted = element && element->tag == tag && element->tagClass == V_ASN1_UNIVERSAL;
  return wanted ? element : std::nullopt;
}

std::optional<int> takeVersion(Bytes& rest) {
  const auto version = take(rest, V_ASN1_INTEGER);
  if (!version || version->content.size() != 1) return std::nullopt;
  return version->content.front();
}

// The fields of the only signer.
struct Signer {
  int version;
  Bytes digest;
};

std::optional<Signer> readSigner(Bytes signers) {
  auto signer = take(signers, V_ASN1_SEQUENCE);
  if (!signer) return std::nullopt;
  Bytes fields = signer->content;
  const auto version = takeVersion(fields);
  const auto name = take(fields);
  const auto digest = take(fields, V_ASN1_SEQUENCE);
  if (!version || !name || !digest) return std::nullopt;
  const bool namedByIssuer = name->tagClass == V_ASN1_UNIVERSAL;
  if (*version != (namedByIssuer ? 1 : 3)) return std::nullopt;
  return Signer{*version, digest->whole};
}

}  // namespace

bool isConsistentEnvelope(Bytes der) {
  auto info = take(der, V_ASN1_SEQUENCE);
  if (!info || !take(info->content, V_ASN1_OBJECT)) return false;
  auto outer = take(info->content);
  if (!outer || !info->content.empty()) return false;
  auto data = take(outer->content, V_ASN1_SEQUENCE);
  if (!data || !outer->content.empty()) return false;
  Bytes fields = data->content;
  const auto version = takeVersion(fields);
  const auto digests = take(fields, V_ASN1_SET);
  if (!version || !digests || !take(fields, V_ASN1_SEQUENCE)) return false;
  std::optional<Element> last;
  while (!fields.empty()) {
    last = take(fields);
    if (!last) return false;
  }
  if (!last || last->tag != V_ASN1_SET || last->tagClass != V_ASN1_UNIVERSAL) return false;
  const auto signer = readSigner(last->content);
  return signer && *version == signer->version &&
         std::ranges::equal(digests->content, signer->digest);
}

}  // namespace platform
