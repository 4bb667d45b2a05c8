#include "ServiceManager/ServiceManager/ServicePages.h"

#include <algorithm>
#include <cstddef>

#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"

using namespace platform;

namespace {

// A message of this size is within the other limits, too: each value or key takes six bytes at
// least, so it has fewer than kMaxPeerNodes.
constexpr std::size_t kPageBytes = std::size_t{512} * 1024;
static_assert(kPageBytes / 6 < kMaxPeerNodes && 2 * kPageBytes <= kMaxPeerMessageBytes);

std::size_t bytesOf(const Dictionary::Entry& service) {
  return peerBodyBytes({service.first, service.second}).value_or(kPageBytes);
}

}  // namespace

std::optional<Dictionary> pageOfServices(const Dictionary& services, std::string_view last) {
  auto next = services.begin();
  if (!last.empty()) {
    next = std::ranges::find(services, last, &Dictionary::Entry::first);
    if (next == services.end()) return std::nullopt;
    ++next;
  }
  Dictionary page;
  for (std::size_t bytes = 0; next != services.end(); ++next) {
    bytes += bytesOf(*next);
    if (bytes > kPageBytes && !page.empty()) break;
    page.set(next->first, next->second);
  }
  return page;
}
