#include "JobHost/BoundFile.h"

#include <cstring>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {
namespace {

struct DiagnosisMessage {
  nlmsghdr header{};
  unix_diag_req request{};
};

}  // namespace

dev_t deviceOfKernel(std::uint32_t number) {
  constexpr int kMinorBits = 20;
  return makedev(number >> kMinorBits, number & ((1U << kMinorBits) - 1));
}

std::optional<BoundFile> boundFileOf(platform::Descriptor socket) {
  struct stat status{};
  if (::fstat(socket, &status) != 0) return std::nullopt;
  const platform::UniqueFd kernel(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!kernel) return std::nullopt;
  DiagnosisMessage message;
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST;
  message.request.sdiag_family = AF_UNIX;
  message.request.udiag_ino = static_cast<std::uint32_t>(status.st_ino);
  message.request.udiag_show = UDIAG_SHOW_VFS;
  // The socket is open here, so its number can't mean another one. No cookie is needed.
  message.request.udiag_cookie[0] = message.request.udiag_cookie[1] = ~std::uint32_t{0};
  if (::send(kernel.get(), &message, sizeof message, 0) != sizeof message) return std::nullopt;
  // The kernel has answered before send() returns.
  alignas(nlmsghdr) char bytes[4096];
  const ssize_t count = ::recv(kernel.get(), bytes, sizeof bytes, MSG_DONTWAIT);
  if (count < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(unix_diag_msg)))) return std::nullopt;
  auto* const header = reinterpret_cast<nlmsghdr*>(bytes);
  if (!NLMSG_OK(header, static_cast<std::size_t>(count)) ||
      header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
    return std::nullopt;
  }
  auto* attribute = reinterpret_cast<rtattr*>(static_cast<char*>(NLMSG_DATA(header)) +
                                              NLMSG_ALIGN(sizeof(unix_diag_msg)));
  auto left = static_cast<int>(header->nlmsg_len - NLMSG_LENGTH(sizeof(unix_diag_msg)));
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    unix_diag_vfs file{};
    if (attribute->rta_type != UNIX_DIAG_VFS || RTA_PAYLOAD(attribute) < sizeof file) continue;
    std::memcpy(&file, RTA_DATA(attribute), sizeof file);
    return BoundFile{file.udiag_vfs_ino, deviceOfKernel(file.udiag_vfs_dev)};
  }
  return std::nullopt;
}

}  // namespace jobhost
