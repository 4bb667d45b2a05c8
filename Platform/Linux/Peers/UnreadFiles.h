#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

namespace platform {

// The memory files in messages that have been sent over a stream socket and that the peer has not
// read yet. They take our memory, but neither libdbus nor the kernel counts their bytes.
//
// A busy peer never leaves its socket empty, and its own claims can't be trusted. But the kernel
// reports how much memory the unread data takes. A stream is read in order: if that is less than
// was written since a message, the message has been read.
class UnreadFiles {
 public:
  // The least that the kernel counts for any message, because its bookkeeping alone takes more. The
  // exact size of a message is the difference that it makes in the kernel's count, unless the peer
  // reads at the same time.
  static constexpr std::size_t kLeastSocketBytes = 512;

  // `socket` is only queried; the owner of this object keeps it open.
  explicit UnreadFiles(int socket) : socket_(socket) {}

  // To be called before and after each message is sent, with the bytes of its file, if any.
  // `isWritten` means that all sent data is in the socket.
  void willSend(std::size_t fileBytes, bool isWritten);
  void sent(std::size_t fileBytes, bool isWritten);

  // The bytes of the files that the peer may not have read.
  std::size_t bytes(bool isWritten);

 private:
  struct Message {
    std::uint64_t position = 0;  // the bytes written before it, by the kernel's count
    std::size_t fileBytes = 0;
  };

  bool concerns(std::size_t fileBytes) const { return fileBytes > 0 || !messages_.empty(); }
  void placeAll();
  void removeOldest();

  int socket_;
  // The messages with files, in order. The first `placed_` have a known position; the others were
  // not in the socket at the last check.
  std::deque<Message> messages_;
  std::size_t placed_ = 0;
  std::size_t bytes_ = 0;      // of all files
  std::uint64_t written_ = 0;  // a lower bound; not counted while there are no files

  // Valid while a message is sent.
  bool wasWritten_ = false;
  std::size_t inSocketBefore_ = 0;
};

}  // namespace platform
