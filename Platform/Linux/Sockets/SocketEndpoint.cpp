#include "Platform/Linux/Sockets/SocketEndpoint.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

constexpr std::string_view kBirthPrefix = "new-";
constexpr char kSocketName[] = "socket";
constexpr int kBirthAttempts = 8;
constexpr int kMaxLeftovers = 1024;

std::unexpected<Error> endpointFailure(const char* what) {
  const bool isExhausted = errno == EMFILE || errno == ENFILE || errno == ENOSPC;
  return std::unexpected(
      systemError(what, isExhausted ? ErrorCode::kExhausted : ErrorCode::kSystem));
}

struct EndpointBirth {
  std::string path;
  UniqueFd folder;
};

// Makes a folder and locks it, which tells removeLeftovers() that its maker lives. If that was
// faster, another folder is made.
Result<EndpointBirth> makeBirthFolder(const std::string& birthsFolder) {
  for (int attempt = 0; attempt < kBirthAttempts; ++attempt) {
    EndpointBirth birth{birthsFolder + "/" + std::string(kBirthPrefix) + "XXXXXX", UniqueFd()};
    if (::mkdtemp(birth.path.data()) == nullptr) break;
    birth.folder =
        UniqueFd(::open(birth.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status{};
    if (birth.folder && ::flock(birth.folder.get(), LOCK_EX | LOCK_NB) == 0 &&
        ::fstat(birth.folder.get(), &status) == 0 && status.st_nlink > 0) {
      return birth;
    }
    const int number = errno;
    ::rmdir(birth.path.c_str());
    errno = number;
  }
  return endpointFailure("a folder for a new endpoint");
}

// Binds a socket in the folder, opens its inode and permits others to connect.
Result<UniqueFd> bindAndOpen(const UniqueFd& folder, const SocketPermission& permission,
                             const SocketEndpoint::Bind& bind) {
  const std::string path = pathOfDescriptor(folder) + "/" + kSocketName;
  if (auto bound = bind(path); !bound) return std::unexpected(std::move(bound.error()));
  UniqueFd descriptor(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!descriptor) return endpointFailure("a new endpoint");
  auto permitted = permit(folder, kSocketName, permission);
  if (!permitted) return std::unexpected(std::move(permitted.error()));
  return descriptor;
}

// Keeps the folder of a maker that lives: it holds the lock.
void removeLeftover(int births, const std::string& name) {
  const UniqueFd birth(
      ::openat(births, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!birth || ::flock(birth.get(), LOCK_EX | LOCK_NB) != 0) return;
  ::unlinkat(birth.get(), kSocketName, 0);
  ::unlinkat(births, name.c_str(), AT_REMOVEDIR);
}

}  // namespace

Result<std::shared_ptr<const SocketEndpoint>> SocketEndpoint::of(UniqueFd descriptor) {
  struct stat status{};
  const int flags = ::fcntl(descriptor.get(), F_GETFL);
  if (flags < 0 || ::fstat(descriptor.get(), &status) != 0) return endpointFailure("an endpoint");
  // A socket with a name may belong to somebody who excludes the sender from connecting.
  if ((flags & O_PATH) == 0 || !S_ISSOCK(status.st_mode) || status.st_nlink != 0) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, "a descriptor that is no endpoint"});
  }
  return std::shared_ptr<const SocketEndpoint>(new SocketEndpoint(std::move(descriptor)));
}

Result<SocketEndpoint::New> SocketEndpoint::make(const std::string& birthsFolder,
                                                 const SocketPermission& permission,
                                                 const Bind& bind) {
  auto birth = makeBirthFolder(birthsFolder);
  if (!birth) return std::unexpected(std::move(birth.error()));
  auto descriptor = bindAndOpen(birth->folder, permission, bind);
  ::unlinkat(birth->folder.get(), kSocketName, 0);
  ::rmdir(birth->path.c_str());
  if (!descriptor) return std::unexpected(descriptor.error());
  auto endpoint = of(std::move(*descriptor));
  if (!endpoint) return std::unexpected(std::move(endpoint.error()));
  return New{std::move(*endpoint), std::move(birth->folder)};
}

void SocketEndpoint::removeLeftovers(const std::string& birthsFolder) {
  UniqueFd folder(::open(birthsFolder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return;
  const int births = folder.get();
  int left = kMaxLeftovers;
  // A leftover that can't be found now is removed by the next clean-up.
  std::ignore = eachNameInFolder(std::move(folder), [births, &left](std::string_view name) {
    if (!name.starts_with(kBirthPrefix)) return true;
    removeLeftover(births, std::string(name));
    return --left > 0;
  });
}

// A datagram socket can't be connected to a listener. The kernel compares the types only after it
// has found the socket of the inode, so the error tells whether there is one.
bool SocketEndpoint::hasListener() const {
  const UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe) return true;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = path();
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
             0 ||
         errno != ECONNREFUSED;
}

std::string SocketEndpoint::path() const { return pathOfDescriptor(descriptor_); }

}  // namespace platform
