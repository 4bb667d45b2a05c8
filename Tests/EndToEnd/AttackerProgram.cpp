// An attacker on the daemon's machine. Started as root, it tries one way in again and again as
// other users, and prints "served N of M": how often the daemon accepted it. The arguments are the
// platform root, the way and the number of tries. "registry: " before the way means the registry of
// endpoints, and not the user interface's server: the tries then look up, replace and revoke root's
// name in turn. It prints "impossible here" if this machine does not permit the way.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/DBus/DBusConnecting.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/Sockets/SocketEndpoint.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/RegistryAttack.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

constexpr char kServer[] = "com.vantor.servicemanager.userinterface.server";
constexpr char kAuthenticate[] = "NSConnectionAuthenticate:";
constexpr std::string_view kOnRegistry = "registry: ";
constexpr char kShow[] = "--show";
constexpr int kKindsOfRequest = 3;
// The product's group in the tests has this number, and so has a user with no other group.
constexpr uid_t kMember = 65534;
constexpr uid_t kStranger = 65533;
constexpr int kServed = 10;
constexpr int kRefused = 11;
constexpr int kImpossible = 12;

bool become(uid_t user) {
  return ::syscall(SYS_setgroups, 0, nullptr) == 0 &&
         ::syscall(SYS_setresgid, user, user, user) == 0 &&
         ::syscall(SYS_setresuid, user, user, user) == 0;
}

struct Attack {
  std::string program;
  std::string root;
  std::string socket;
  Data token;
  std::optional<RegistryAttack> onRegistry;  // else on the user interface's server
};

// Whether the server accepts the token of the process that has this connected socket now: in the
// first message of a named connection, and in a request to the registry.
bool isAccepted(UniqueFd socket, const Attack& attack) {
  const auto loop = std::move(*AsioRunLoop::create());
  auto connection = openOverSocket(std::move(socket));
  if (!connection) return false;
  const auto link = DBusPeerLink::create(
      *loop, std::move(*connection), WhileWaiting::kServeNothing,
      attack.onRegistry ? PeerMessageContents::kValuesAndEndpoints : PeerMessageContents::kValues);
  if (!link || !(*link)->awaitWelcome(loop->now() + 10s)) return false;
  const bool isServed = attack.onRegistry
                            ? attack.onRegistry->isServed(**link, attack.token)
                            : (*link)->call(kAuthenticate, {Value(attack.token)}, 10s).has_value();
  (*link)->close();
  return isServed;
}

bool connectAndShow(const Attack& attack) {
  auto socket = connectToSocket(attack.socket, 5s);
  return socket && isAccepted(std::move(*socket), attack);
}

UniqueFd newSocket() { return UniqueFd(::socket(AF_UNIX, SOCK_STREAM, 0)); }

bool connectWith(const UniqueFd& socket, const std::string& path) {
  const UniqueFd target(::open(path.c_str(), O_PATH | O_CLOEXEC));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  pathOfDescriptor(target).copy(address.sun_path, sizeof address.sun_path - 1);
  return target &&
         ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

int exitStatus(bool isServed) { return isServed ? kServed : kRefused; }

int statusOf(pid_t process) {
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

// Runs `action` in a process of its own and returns its status.
int inChild(const std::function<int()>& action) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(action());
  return child < 0 ? EXIT_FAILURE : statusOf(child);
}

int as(uid_t user, const std::function<bool()>& action) {
  return inChild([&] { return become(user) ? exitStatus(action()) : EXIT_FAILURE; });
}

// The ways in.

int memberWithTheToken(const Attack& attack) {
  return as(kMember, [&] {
    Attack permitted = attack;
    if (attack.onRegistry) permitted.onRegistry->kind = RegistryAttack::Kind::kLookUp;
    return connectAndShow(permitted);
  });
}

int memberWithItsOwnName(const Attack& attack) {
  return as(kMember, [&] {
    Attack permitted = attack;
    permitted.onRegistry = RegistryAttack{RegistryAttack::Kind::kReplace, "members"};
    return connectAndShow(permitted);
  });
}

int memberWithRootsName(const Attack& attack) {
  return as(kMember, [&] {
    Attack change = attack;
    if (change.onRegistry->kind == RegistryAttack::Kind::kLookUp)
      change.onRegistry->kind = RegistryAttack::Kind::kReplace;
    return connectAndShow(change);
  });
}

int wrongToken(const Attack& attack) {
  return as(kMember, [&] {
    Attack wrong = attack;
    for (auto& byte : wrong.token) byte = static_cast<std::uint8_t>(std::random_device()());
    return connectAndShow(wrong);
  });
}

// The boot time's lowest byte is in every byte of the token.
int tokenOfAnotherBoot(const Attack& attack) {
  static std::uint8_t difference = 0;
  if (++difference == 0) ++difference;
  return as(kMember, [&] {
    Attack old = attack;
    for (auto& byte : old.token) byte ^= difference;
    return connectAndShow(old);
  });
}

int strangerWithTheToken(const Attack& attack) {
  return as(kStranger, [&] { return connectAndShow(attack); });
}

// A member connects, passes the connection on to a stranger and ends.
int descriptorPassedOn(const Attack& attack) {
  const UniqueFd socket = newSocket();
  const int connected = as(kMember, [&] { return connectWith(socket, attack.socket); });
  if (connected != kServed) return EXIT_FAILURE;
  return as(kStranger, [&] { return isAccepted(UniqueFd(::dup(socket.get())), attack); });
}

// The process that connected has ended, and another one of the same user has got its number.
int reusedNumber(const Attack& attack) {
  const UniqueFd socket = newSocket();
  pid_t number = ::fork();
  if (number == 0) {
    ::_exit(exitStatus(become(kMember) && connectWith(socket, attack.socket)));
  }
  if (statusOf(number) != kServed) return EXIT_FAILURE;
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
  arguments.set_tid_size = 1;
  const auto next = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
  if (next == 0) {
    ::_exit(become(kMember) ? exitStatus(isAccepted(UniqueFd(::dup(socket.get())), attack))
                            : EXIT_FAILURE);
  }
  if (next < 0) return errno == EEXIST ? kRefused : kImpossible;
  return statusOf(next);
}

// The program that shows the token over a descriptor: the second half of "executed afterwards".
std::string wayToShow(const Attack& attack) {
  if (!attack.onRegistry) return kShow;
  return std::string(kOnRegistry) + kShow +
         std::to_string(static_cast<int>(attack.onRegistry->kind));
}

// A process of root's connects, gives up its rights and runs a stranger's program.
int executedAfterwards(const Attack& attack) {
  return inChild([&] {
    const UniqueFd socket = newSocket();
    if (!connectWith(socket, attack.socket) || !become(kStranger)) return EXIT_FAILURE;
    const std::string descriptor = std::to_string(socket.get());
    const std::string way = wayToShow(attack);
    ::execl(attack.program.c_str(), attack.program.c_str(), attack.root.c_str(), way.c_str(),
            descriptor.c_str(), nullptr);
    return EXIT_FAILURE;
  });
}

// A process of root's gives up its rights after it has connected.
int userChangedAfterwards(const Attack& attack) {
  return inChild([&] {
    const UniqueFd socket = newSocket();
    if (!connectWith(socket, attack.socket) || !become(kStranger)) return EXIT_FAILURE;
    return exitStatus(isAccepted(UniqueFd(::dup(socket.get())), attack));
  });
}

// The same after it has shown its token.
int userChangedAfterTheToken(const Attack& attack) {
  return inChild([&] {
    auto socket = connectToSocket(attack.socket, 5s);
    auto connection = socket ? openOverSocket(std::move(*socket)) : UniqueDBusConnection();
    const auto loop = std::move(*AsioRunLoop::create());
    if (!connection) return EXIT_FAILURE;
    const auto link = DBusPeerLink::create(
        *loop, std::move(*connection), WhileWaiting::kServeNothing, PeerMessageContents::kValues);
    if (!link || !(*link)->awaitWelcome(loop->now() + 10s)) return EXIT_FAILURE;
    if (!(*link)->call(kAuthenticate, {Value(attack.token)}, 10s)) return EXIT_FAILURE;
    if (!(*link)->call("services", {}, 10s) || !become(kStranger)) return EXIT_FAILURE;
    return exitStatus((*link)->call("services", {}, 10s).has_value());
  });
}

// A stranger's process becomes root after it has connected, as a program with the set-user-ID bit.
int rightsGainedAfterwards(const Attack& attack) {
  return inChild([&] {
    const UniqueFd socket = newSocket();
    if (::syscall(SYS_setresuid, kStranger, kStranger, 0) != 0) return EXIT_FAILURE;
    if (!connectWith(socket, attack.socket)) return kRefused;
    if (::syscall(SYS_setresuid, 0, 0, 0) != 0) return EXIT_FAILURE;
    return exitStatus(isAccepted(UniqueFd(::dup(socket.get())), attack));
  });
}

int socketPair(const Attack& attack) {
  return as(kMember, [&] {
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
    const UniqueFd ends[] = {UniqueFd(pair[0]), UniqueFd(pair[1])};
    return isRegistered(pair[0], attack.root, attack.token);
  });
}

// A stranger has the descriptor of an endpoint, whose mode does not keep it out.
int endpointPassedOn(const SocketEndpoint& endpoint, uid_t user) {
  return as(user, [&] {
    auto socket = connectToSocket(endpoint.path(), 5s);
    if (!socket) return false;
    const auto loop = std::move(*AsioRunLoop::create());
    auto connection = openOverSocket(std::move(*socket));
    if (!connection) return false;
    const auto link = DBusPeerLink::create(
        *loop, std::move(*connection), WhileWaiting::kServeNothing, PeerMessageContents::kValues);
    return link && (*link)->awaitWelcome(loop->now() + 10s);
  });
}

// A member takes the name of a server that is not there.
int nameOfAServer(const Attack& attack) {
  return as(kMember, [&] {
    UniqueFd socket;
    return SocketName::take(pathOfConnection(attack.root, "com.vantor.absent"), {},
                            [&](const std::string& path) -> Result<void> {
                              socket = newSocket();
                              sockaddr_un address{};
                              address.sun_family = AF_UNIX;
                              path.copy(address.sun_path, sizeof address.sun_path - 1);
                              ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                     sizeof address);
                              ::listen(socket.get(), 1);
                              return {};
                            })
        .has_value();
  });
}

// A member puts a pipe, a link or a folder where servers bind their sockets, or enters the folder
// with their lock.
int fileInTheWay(const Attack& attack) {
  return as(kMember, [&] {
    for (const char* folder : {"", "connections/", "connections/.births/", "mach/", "control/"}) {
      const std::string path = attack.root + "/run/vantor/" + folder + "planted";
      if (::mkfifo(path.c_str(), 0666) == 0 || ::symlink("/etc", path.c_str()) == 0 ||
          ::mkdir(path.c_str(), 0777) == 0) {
        return true;
      }
    }
    const std::string births = attack.root + "/run/vantor/connections/.births";
    return static_cast<bool>(UniqueFd(::open(births.c_str(), O_RDONLY | O_CLOEXEC)));
  });
}

std::shared_ptr<const SocketEndpoint> execInfoEndpoint(const Attack& attack) {
  const LinuxSystemInformation system(defaultPlatformConfiguration(attack.root), "/proc");
  RegistryClient client(attack.root, system);
  const auto registry = client.connect();
  const auto reply = RegistryClient::ask(*registry, RegistryClient::kLookUp,
                                         {client.passkey(), Value(kExecInfoEndpoint)});
  if (!reply || reply->empty()) return nullptr;
  return std::dynamic_pointer_cast<const SocketEndpoint>(endpointIn(reply->front()));
}

using Way = std::function<int(const Attack&)>;

std::optional<Way> wayOf(std::string_view name, const Attack& attack) {
  if (name == "member") return memberWithTheToken;
  if (name == "own name") return memberWithItsOwnName;
  if (name == "root's name") return memberWithRootsName;
  if (name == "wrong token") return wrongToken;
  if (name == "token of another boot") return tokenOfAnotherBoot;
  if (name == "stranger") return strangerWithTheToken;
  if (name == "descriptor passed on") return descriptorPassedOn;
  if (name == "reused number") return reusedNumber;
  if (name == "executed afterwards") return executedAfterwards;
  if (name == "user changed afterwards") return userChangedAfterwards;
  if (name == "user changed after the token") return userChangedAfterTheToken;
  if (name == "rights gained afterwards") return rightsGainedAfterwards;
  if (name == "socket pair") return socketPair;
  if (name == "name of a server") return nameOfAServer;
  if (name == "file in the way") return fileInTheWay;
  if (name == "endpoint of a member" || name == "endpoint passed on") {
    const auto endpoint = execInfoEndpoint(attack);
    if (!endpoint) return std::nullopt;
    const uid_t user = name == "endpoint passed on" ? kStranger : kMember;
    // Only the kernel's word is left to keep the stranger out.
    if (::chmod(endpoint->path().c_str(), 0666) != 0) return std::nullopt;
    return [endpoint, user](const Attack&) { return endpointPassedOn(*endpoint, user); };
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const std::string root = argv[1];
  const LinuxSystemInformation system(defaultPlatformConfiguration(root), "/proc");
  std::string_view name = argv[2];
  const bool isOnRegistry = name.starts_with(kOnRegistry);
  if (isOnRegistry) name.remove_prefix(kOnRegistry.size());
  Attack attack{std::filesystem::read_symlink("/proc/self/exe"), root,
                isOnRegistry ? pathOfMachService(root, kEndpointRegistryService)
                             : pathOfConnection(root, kServer),
                systemProfileData(system),
                isOnRegistry ? std::optional(RegistryAttack()) : std::nullopt};
  const auto setKind = [&](int number) {
    if (isOnRegistry)
      attack.onRegistry->kind = static_cast<RegistryAttack::Kind>(number % kKindsOfRequest);
  };
  if (name.starts_with(kShow)) {
    setKind(name.back() - '0');
    return exitStatus(isAccepted(UniqueFd(std::atoi(argv[3])), attack));
  }
  const auto way = wayOf(name, attack);
  if (!way) return 2;
  const int tries = std::atoi(argv[3]);
  int served = 0;
  for (int i = 0; i < tries; ++i) {
    setKind(i);
    const int status = (*way)(attack);
    if (status == kImpossible) return std::puts("impossible here"), EXIT_SUCCESS;
    if (status != kServed && status != kRefused) return 3;
    if (status == kServed) ++served;
  }
  std::printf("served %d of %d\n", served, tries);
  return EXIT_SUCCESS;
}
