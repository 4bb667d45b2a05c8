#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace platform {

// The memory files that have been sent over a stream socket and that the peer has not taken out of
// it yet. They cost us memory, and neither libdbus nor the kernel counts their bytes.
//
// A peer that is always busy never leaves its socket empty, and what it says that it has read can't
// be believed. The kernel tells how much memory what is unread takes: less than what was written
// from some message on, and that message has been read, since a stream is read in order.
class UnreadFiles {
 public:
  // The least that the kernel counts for a message, however short it is: the bookkeeping alone
  // takes more. What a message takes is seen by the difference that it makes, but not where the
  // peer reads meanwhile.
  static constexpr std::size_t kLeastSocketBytes = 512;

  // `socket` is only asked; whoever made this keeps it open.
  explicit UnreadFiles(int socket) : socket_(socket) {}

  // Before and behind each message that is sent, with the bytes of its file, if any. `isWritten`:
  // nothing that was sent waits outside the socket.
  void willSend(std::size_t fileBytes, bool isWritten);
  void sent(std::size_t fileBytes, bool isWritten);

  // The bytes of the files that the peer may have left unread.
  std::size_t bytes(bool isWritten);

 private:
  struct Message {
    std::uint64_t position = 0;  // as much had been written before it, in the kernel's measure
    std::size_t fileBytes = 0;
  };

  bool concerns(std::size_t fileBytes) const { return fileBytes > 0 || !messages_.empty(); }
  void placeAll();
  void forgetOldest();

  int socket_;
  // Those with files, in their order. Behind those whose position is known there may be some that
  // were not in the socket yet when somebody last looked.
  std::deque<Message> messages_;
  std::size_t placed_ = 0;
  std::size_t bytes_ = 0;      // of all of them
  std::uint64_t written_ = 0;  // at least; nothing is counted while there are no files

  // While a message is sent.
  bool wasWritten_ = false;
  std::size_t inSocketBefore_ = 0;
};

}  // namespace platform
