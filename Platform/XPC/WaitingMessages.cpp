#include "Platform/XPC/WaitingMessages.h"

#include <algorithm>
#include <cstddef>

#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"

namespace platform {

namespace {

// The least memory of a value, however few bytes it has in a message.
constexpr std::size_t kBytesPerValue = 100;

std::size_t valuesIn(const Value& value) {
  std::size_t count = 1;
  if (const Array* const elements = value.array()) {
    for (const Value& element : *elements) count += valuesIn(element);
  }
  if (const Dictionary* const entries = value.dictionary()) {
    for (const auto& [key, entry] : *entries) count += 1 + valuesIn(entry);
  }
  return count;
}

}  // namespace

PeerCost costOfWaiting(const Array& arguments) {
  // A message that we could not send ourselves has arrived: it is encoded otherwise and is larger
  // in our encoding.
  const std::size_t bytes = peerBodyBytes(arguments, PeerMessageContents::kValuesAndEndpoints)
                                .value_or(kMaxPeerMemoryFileBytes);
  PeerCost cost;
  std::size_t values = 0;
  for (const Value& argument : arguments) {
    cost.descriptors += endpointsIn(argument);
    values += valuesIn(argument);
  }
  cost.bytes = std::max(bytes, values * kBytesPerValue);
  return cost;
}

}  // namespace platform
