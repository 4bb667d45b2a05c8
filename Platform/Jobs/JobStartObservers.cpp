#include "Platform/Jobs/JobStartObservers.h"

#include <algorithm>
#include <utility>

namespace platform {

class JobStartObservers::Handle final : public RunLoopHandle {
 public:
  explicit Handle(std::shared_ptr<Jobs::StartObserver> observer) : observer_(std::move(observer)) {}

 private:
  std::shared_ptr<Jobs::StartObserver> observer_;
};

std::unique_ptr<RunLoopHandle> JobStartObservers::add(Jobs::StartObserver observer) {
  std::erase_if(observers_, [](const auto& known) { return known.expired(); });
  auto shared = std::make_shared<Jobs::StartObserver>(std::move(observer));
  observers_.push_back(shared);
  return std::make_unique<Handle>(std::move(shared));
}

void JobStartObservers::report(std::string_view label, Jobs::Start start) {
  // A copy, because observers may add others.
  for (const auto& known : std::vector(observers_)) {
    if (const auto observer = known.lock()) (*observer)(label, start);
  }
}

bool JobStartObservers::empty() const {
  return std::ranges::all_of(observers_, [](const auto& known) { return known.expired(); });
}

}  // namespace platform
