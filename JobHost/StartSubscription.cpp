#include "JobHost/StartSubscription.h"

#include <utility>

#include "Platform/Linux/Jobs/JobHostMessages.h"

namespace jobhost {

void StartSubscription::begin(const std::vector<std::string>& changed) {
  hasBegun_ = true;
  for (const std::string& label : changed) started(label, platform::kNoProcess);
}

void StartSubscription::await(std::unique_ptr<platform::PeerReply> reply) {
  if (reply_) answer();
  reply_ = std::move(reply);
  if (!unread_.empty()) answer();
}

void StartSubscription::started(const std::string& label, platform::ProcessId process) {
  if (!hasBegun_) return;
  if (unread_.size() >= kMaximumLabels && !unread_.contains(label)) return;
  unread_.set(label, process);
  if (reply_) answer();
}

void StartSubscription::answer() {
  // If the client has gone, the connection reports it.
  static_cast<void>(
      std::exchange(reply_, nullptr)->answer(platform::Value(std::exchange(unread_, {}))));
}

}  // namespace jobhost
