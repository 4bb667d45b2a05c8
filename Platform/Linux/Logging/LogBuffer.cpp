#include "Platform/Linux/Logging/LogBuffer.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "Platform/SystemFacts/Thread.h"

namespace platform {
namespace {

// A burst's memory is kept up to this size for the next one.
constexpr std::size_t kKeptTexts = std::size_t{64} << 10;
constexpr std::size_t kKeptLines = 512;

}  // namespace

LogRecord LogBuffer::Batch::operator[](std::size_t index) const {
  const Line& line = lines_[index];
  std::string_view texts = std::string_view(texts_).substr(line.begin);
  const auto next = [&](std::size_t size) {
    const std::string_view text = texts.substr(0, size);
    texts.remove_prefix(size);
    return text;
  };
  LogRecord record;
  record.ident = next(line.ident);
  record.facility = next(line.facility);
  record.level = line.level;
  record.fields.label = next(line.label);
  record.message = next(line.message);
  record.time = line.time;
  record.thread = line.thread;
  record.fields.messageId = line.messageId;
  record.fields.process = line.process;
  record.fields.where = line.where;
  return record;
}

void LogBuffer::Batch::clear() {
  texts_.clear();
  lines_.clear();
  if (texts_.capacity() > kKeptTexts) texts_ = {};
  if (lines_.capacity() > kKeptLines) lines_ = {};
}

bool LogBuffer::add(const LogRecord& record) {
  const std::size_t cost = costOf(record);
  const std::size_t room = record.isUrgent ? limits_.bytes : limits_.bytes - limits_.reserve;
  if (occupied_ + cost > room) return false;
  occupied_ += cost;
  waiting_.lines_.push_back({.begin = waiting_.texts_.size(),
                             .ident = static_cast<std::uint32_t>(record.ident.size()),
                             .facility = static_cast<std::uint32_t>(record.facility.size()),
                             .label = static_cast<std::uint32_t>(record.fields.label.size()),
                             .message = record.message.size(),
                             .time = record.time.value_or(std::chrono::system_clock::now()),
                             .thread = record.thread.value_or(mach_thread_self()),
                             .level = record.level,
                             .messageId = record.fields.messageId,
                             .process = record.fields.process,
                             .where = record.fields.where});
  waiting_.texts_.append(record.ident)
      .append(record.facility)
      .append(record.fields.label)
      .append(record.message);
  return true;
}

void LogBuffer::take(Batch& batch) { std::swap(waiting_, batch); }

}  // namespace platform
