#include "Platform/Testing/Machine/PassedDescriptors.h"

#include <cstring>

#include <sys/socket.h>
#include <sys/uio.h>

namespace platform {

long sendWithDescriptors(Descriptor socket, std::string_view bytes,
                         const std::vector<Descriptor>& descriptors) {
  const std::size_t size = sizeof(Descriptor) * descriptors.size();
  iovec part{const_cast<char*>(bytes.data()), bytes.size()};
  std::vector<char> control(CMSG_SPACE(size));
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(size);
  std::memcpy(CMSG_DATA(header), descriptors.data(), size);
  return ::sendmsg(socket, &message, MSG_NOSIGNAL);
}

}  // namespace platform
