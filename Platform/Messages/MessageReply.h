#pragma once

#include <functional>
#include <utility>

#include "Platform/Values/Exception.h"

namespace platform {

// The right to answer one message, once, at any time. If it is dropped without an answer, the
// sender gets an exception that says so. Belongs to the thread of the message. May outlive its
// connection; the answer is dropped then.
class MessageReply {
 public:
  using Answer = std::move_only_function<void(MessageResult)>;

  // A reply for a sender that wants none.
  MessageReply() = default;
  explicit MessageReply(Answer answer) : answer_(std::move(answer)) {}
  MessageReply(MessageReply&& other) noexcept : answer_(std::exchange(other.answer_, nullptr)) {}
  MessageReply& operator=(MessageReply&& other) noexcept {
    MessageReply(std::move(other)).swap(*this);
    return *this;
  }
  ~MessageReply() {
    if (answer_)
      answer(raised(kNSInvalidSendPortException, "The message was dropped without an answer."));
  }

  // Whether the sender wants an answer and has none yet.
  bool isWanted() const { return answer_ != nullptr; }

  // Only the first call has an effect.
  void answer(MessageResult result) {
    if (auto answer = std::exchange(answer_, nullptr)) answer(std::move(result));
  }

 private:
  void swap(MessageReply& other) noexcept { std::swap(answer_, other.answer_); }

  Answer answer_;
};

}  // namespace platform
