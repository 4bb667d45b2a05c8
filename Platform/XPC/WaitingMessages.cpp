#include "Platform/XPC/WaitingMessages.h"

#include <utility>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/SystemFacts/CurrentUser.h"

namespace platform {

class WaitingMessages::Taken final : public Place {
 public:
  Taken(std::shared_ptr<WaitingMessages> all, std::uint32_t user, const Cost& cost)
      : all_(std::move(all)), user_(user), cost_(cost) {}
  Taken(const Taken&) = delete;
  Taken& operator=(const Taken&) = delete;
  ~Taken() override {
    const std::lock_guard lock(all_->mutex_);
    const auto held = all_->held_.find(user_);
    held->second.cost.bytes -= cost_.bytes;
    held->second.cost.endpoints -= cost_.endpoints;
    if (--held->second.messages == 0) all_->held_.erase(held);
  }

 private:
  const std::shared_ptr<WaitingMessages> all_;  // shared with other places
  const std::uint32_t user_;
  const Cost cost_;
};

WaitingMessages::Cost WaitingMessages::costOf(const Array& arguments) {
  Cost cost;
  // A message that we could not send ourselves has arrived: it is encoded otherwise and is larger
  // in our encoding.
  cost.bytes = peerBodyBytes(arguments, PeerMessageContents::kValuesAndEndpoints)
                   .value_or(kMaxPeerMemoryFileBytes);
  for (const Value& argument : arguments) cost.endpoints += endpointsIn(argument);
  return cost;
}

std::unique_ptr<WaitingMessages::Place> WaitingMessages::take(std::uint32_t user,
                                                              const Cost& cost) {
  const bool isBound = user != 0 && user != currentEffectiveUserId();
  const std::lock_guard lock(mutex_);
  const auto found = held_.find(user);
  const Cost before = found == held_.end() ? Cost() : found->second.cost;
  if (isBound && (before.bytes + cost.bytes > kMaxBytesPerUser ||
                  before.endpoints + cost.endpoints > kMaxEndpointsPerUser)) {
    return nullptr;
  }
  Held& held = held_[user];
  ++held.messages;
  held.cost.bytes += cost.bytes;
  held.cost.endpoints += cost.endpoints;
  return std::make_unique<Taken>(shared_from_this(), user, cost);
}

}  // namespace platform
