#include "Platform/Linux/Peers/UnreadFiles.h"

#include <algorithm>
#include <limits>

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace platform {

namespace {

// The written and unread bytes, with the kernel's bookkeeping for them.
std::size_t bytesInSocket(int socket) {
  int bytes = 0;
  if (::ioctl(socket, SIOCOUTQ, &bytes) != 0 || bytes < 0) {
    return std::numeric_limits<std::size_t>::max();  // Nothing counts as read.
  }
  return static_cast<std::size_t>(bytes);
}

}  // namespace

void UnreadFiles::willSend(std::size_t fileBytes, bool isWritten) {
  if (!concerns(fileBytes)) return;
  wasWritten_ = isWritten;
  if (!isWritten) return;
  placeAll();
  inSocketBefore_ = bytesInSocket(socket_);
}

void UnreadFiles::sent(std::size_t fileBytes, bool isWritten) {
  if (!concerns(fileBytes)) return;
  if (fileBytes > 0) {
    bytes_ += fileBytes;
    messages_.push_back({written_, fileBytes});
    // Otherwise data before it is still unwritten, so its position is unknown yet.
    if (wasWritten_) placed_ = messages_.size();
  }
  if (!wasWritten_ || !isWritten) return;
  const std::size_t now = bytesInSocket(socket_);
  const std::size_t seen = now > inSocketBefore_ ? now - inSocketBefore_ : 0;
  written_ += std::max(seen, kLeastSocketBytes);
}

std::size_t UnreadFiles::bytes(bool isWritten) {
  if (messages_.empty()) return 0;
  if (isWritten) placeAll();
  const std::size_t inSocket = bytesInSocket(socket_);
  const bool isAllRead = isWritten && inSocket == 0;
  while (placed_ > 0 && (isAllRead || inSocket < written_ - messages_.front().position)) {
    removeOldest();
  }
  return bytes_;
}

void UnreadFiles::placeAll() {
  for (; placed_ < messages_.size(); ++placed_) messages_[placed_].position = written_;
}

void UnreadFiles::removeOldest() {
  bytes_ -= messages_.front().fileBytes;
  messages_.pop_front();
  --placed_;
}

}  // namespace platform
