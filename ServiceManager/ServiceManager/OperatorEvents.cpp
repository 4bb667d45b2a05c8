#include "ServiceManager/ServiceManager/OperatorEvents.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Platform/Jobs/JobHistory.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"

using namespace platform;

namespace {

void addContent(Dictionary& facts, const OperatorEvent& event) {
  switch (event.kind) {
    case OperatorEvent::Kind::kService:
      facts.set(kFactEvent, kEventService);
      facts.set(kFactLabel, event.subject);
      if (event.number > 0) facts.set(kFactEventProcess, event.number);
      return;
    case OperatorEvent::Kind::kSettings:
      facts.set(kFactEvent, kEventSettings);
      if (!event.subject.empty()) facts.set(kFactKey, event.subject);
      return;
    case OperatorEvent::Kind::kMode:
      facts.set(kFactEvent, kEventMode);
      facts.set(kFactOperatingMode, event.number);
      return;
    case OperatorEvent::Kind::kInstaller:
      facts.set(kFactEvent, kEventInstaller);
      facts.set(kFactIsInstallerAtWork, event.number != 0);
      return;
    case OperatorEvent::Kind::kExtension:
      facts.set(kFactEvent, kEventExtension);
      facts.set(kFactEventExtension, event.subject);
      if (!event.step.empty()) facts.set(kFactKextFailedStep, std::string(event.step));
      return;
    case OperatorEvent::Kind::kEvaluation:
      facts.set(kFactEvent, kEventEvaluation);
      facts.set(kFactLabel, event.subject);
      facts.set(kFactEventIsWanted, event.number != 0);
      return;
  }
}

}  // namespace

Value factsOf(const OperatorEvent& event) {
  Dictionary facts{{kFactEventTime, dateAt(event.time)}};
  addContent(facts, event);
  return facts;
}

OperatorEvents::OperatorEvents(WallTime began)
    : first_(std::chrono::floor<std::chrono::microseconds>(began).time_since_epoch().count()) {}

// Cut before a character, not inside one. A copy has no capacity for the rest.
std::string OperatorEvents::shortened(std::string text) {
  if (text.size() <= kMostTextBytes) return text;
  std::size_t size = kMostTextBytes;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) --size;
  return text.substr(0, size);
}

void OperatorEvents::add(OperatorEvent event) {
  event.subject = shortened(std::move(event.subject));
  RunLoop::Callback added;
  {
    const std::lock_guard lock(mutex_);
    ++last_;
    events_.push_back(std::move(event));
    if (events_.size() > kMost) events_.pop_front();
    added = std::exchange(added_, nullptr);
  }
  if (added) added();
}

std::int64_t OperatorEvents::last() const {
  const std::lock_guard lock(mutex_);
  return last_;
}

OperatorEvents::Part OperatorEvents::copyAfter(std::int64_t number, std::size_t most) const {
  const std::lock_guard lock(mutex_);
  const auto forgotten = last_ - static_cast<std::int64_t>(events_.size());
  if (number < first_ || number > last_) number = first_;
  const std::int64_t first = std::max(number, forgotten);
  Part part{.missed = first - number, .last = first, .events = {}};
  for (; part.last < last_ && part.events.size() < most; ++part.last)
    part.events.push_back(events_[static_cast<std::size_t>(part.last - forgotten)]);
  return part;
}

// The main thread waits for the lock, so the facts are made without it.
Value OperatorEvents::after(std::int64_t number, std::size_t most) const {
  const Part part = copyAfter(number, most);
  Array events;
  for (const OperatorEvent& event : part.events) events.push_back(factsOf(event));
  return Dictionary{{kFactEvents, std::move(events)},
                    {kFactLastEvent, part.last},
                    {kFactMissedEvents, part.missed}};
}

void OperatorEvents::whenAdded(RunLoop::Callback added) {
  const std::lock_guard lock(mutex_);
  added_ = std::move(added);
}
