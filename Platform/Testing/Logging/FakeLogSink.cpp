#include "Platform/Testing/Logging/FakeLogSink.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace platform {

Result<void> FakeLogSink::write(const LogRecord& record) {
  const std::lock_guard lock(mutex_);
  if (failing_) {
    ++refused_;
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "the log takes nothing"});
  }
  messages_.push_back({std::string(record.ident), std::string(record.facility), record.level,
                       std::string(record.message)});
  const LogFields& fields = record.fields;
  if (fields.messageId) {
    events_.push_back({fields.messageId, std::string(fields.label), fields.process});
  }
  return {};
}

void FakeLogSink::fail() {
  const std::lock_guard lock(mutex_);
  failing_ = true;
}

void FakeLogSink::recover() {
  const std::lock_guard lock(mutex_);
  failing_ = false;
}

std::size_t FakeLogSink::refused() const {
  const std::lock_guard lock(mutex_);
  return refused_;
}

std::vector<FakeLogSink::Message> FakeLogSink::messages() const {
  return select([](const Message&) { return true; });
}

std::vector<std::string> FakeLogSink::texts() const {
  std::vector<std::string> texts;
  for (Message& message : messages()) texts.push_back(std::move(message.text));
  return texts;
}

std::vector<FakeLogSink::Message> FakeLogSink::messagesAtLevel(AslLevel level) const {
  return select([level](const Message& message) { return message.level == level; });
}

std::vector<FakeLogSink::Message> FakeLogSink::messagesOf(std::string_view ident) const {
  return select([ident](const Message& message) { return message.ident == ident; });
}

std::size_t FakeLogSink::count(std::string_view part) const {
  return select([part](const Message& message) { return message.text.contains(part); }).size();
}

std::vector<FakeLogSink::Event> FakeLogSink::events() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

void FakeLogSink::clear() { take(); }

std::vector<FakeLogSink::Message> FakeLogSink::take() {
  const std::lock_guard lock(mutex_);
  events_.clear();
  return std::exchange(messages_, {});
}

template <typename Predicate>
std::vector<FakeLogSink::Message> FakeLogSink::select(Predicate predicate) const {
  const std::lock_guard lock(mutex_);
  std::vector<Message> selected;
  std::ranges::copy_if(messages_, std::back_inserter(selected), predicate);
  return selected;
}

}  // namespace platform
