// Attackers: processes of other users who flood the daemon in one way until they are killed. Prints
// "flooding" when all have begun. The arguments are the platform root, the way, the first user's
// number, the number of users and the group that may reach the daemon.

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Testing/Machine/PassedDescriptors.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

constexpr char kUserInterface[] = "com.vantor.servicemanager.userinterface.server";
constexpr char kOperator[] = "com.vantor.servicemanager.operator.server";
constexpr char kInstaller[] = "com.vantor.servicemanager.installer.server";
constexpr std::size_t kMostConnections = 300;

std::string marshalled(std::string_view selector, const Array& arguments, PeerMessageKind kind) {
  const auto message = encodeMessage(selector, arguments, kind);
  if (!message) std::abort();
  dbus_message_set_serial(message->message.get(), 1);
  char* bytes = nullptr;
  int size = 0;
  if (!dbus_message_marshal(message->message.get(), &bytes, &size)) std::abort();
  std::string result(bytes, static_cast<std::size_t>(size));
  dbus_free(bytes);
  return result;
}

// A connection whose bytes are written by hand. It never waits long: the daemon may refuse it.
class RawConnection {
 public:
  explicit RawConnection(const std::string& path) {
    auto socket = connectToSocket(path, 1s);
    if (!socket) return;
    socket_ = std::move(*socket);
    std::string digits;
    for (const char digit : std::to_string(::geteuid())) digits += {'3', digit};
    write(std::string(1, '\0') + "AUTH EXTERNAL " + digits + "\r\nNEGOTIATE_UNIX_FD\r\n");
    isOpen_ = readSome() && write("BEGIN\r\n");
  }

  bool isOpen() const { return isOpen_; }
  // Writes as much as the socket takes. False if the daemon has hung up.
  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto written = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (written < 0 && errno == EAGAIN && await(POLLOUT)) continue;
      if (written < 0) return hangUp();
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
  }
  bool writeWith(std::string_view bytes, const std::vector<int>& descriptors) {
    return sendWithDescriptors(socket_.get(), bytes, descriptors) > 0;
  }
  // Takes what the daemon has sent. False if it has hung up.
  bool drain() {
    std::array<char, 4096> bytes;
    for (;;) {
      const auto got = ::recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
      if (got < 0 && errno == EAGAIN) return true;
      if (got <= 0) return hangUp();
    }
  }

 private:
  bool hangUp() {
    isOpen_ = false;
    return false;
  }
  bool await(short events) const {
    pollfd entry{socket_.get(), events, 0};
    return ::poll(&entry, 1, 1000) == 1;
  }
  bool readSome() {
    std::array<char, 256> bytes;
    return await(POLLIN) && ::recv(socket_.get(), bytes.data(), bytes.size(), 0) > 0;
  }

  UniqueFd socket_;
  bool isOpen_ = false;
};

// One user's attack.
class Attacker {
 public:
  Attacker(std::string root, UniqueFd begun)
      : root_(std::move(root)),
        system_(defaultPlatformConfiguration(root_), "/proc"),
        begun_(std::move(begun)) {}

  [[noreturn]] void flood(const std::string& way) {
    if (way == "names") floodNames();
    for (;;) {
      if (way == "connections") addConnections();
      if (way == "unfinished") addUnfinished();
      if (way == "oneway") sendOneWay();
      if (way == "questions") askWithoutWaiting();
      if (way == "refused") askInVain();
      if (way == "descriptors") addDescriptors();
      if (way == "changes") changeServices();
      if (way == "evaluations") evaluateServices();
      begin();
    }
  }

 private:
  void begin() {
    if (!begun_) return;
    std::ignore = ::write(begun_.get(), "b", 1);
    begun_.reset();
  }
  std::string token() const {
    return marshalled("NSConnectionAuthenticate:", {Value(systemProfileData(system_))},
                      PeerMessageKind::kTwoWay);
  }
  std::string registry() const { return pathOfMachService(root_, kEndpointRegistryService); }

  // Drops the connections that the daemon has ended, and adds one.
  RawConnection* add(const std::string& path) {
    std::erase_if(connections_, [](const auto& held) { return !held->drain(); });
    if (connections_.size() >= kMostConnections) return ::poll(nullptr, 0, 10), nullptr;
    auto made = std::make_unique<RawConnection>(path);
    if (!made->isOpen()) return ::poll(nullptr, 0, 1), nullptr;
    return connections_.emplace_back(std::move(made)).get();
  }
  void addConnections() {
    turn_ = (turn_ + 1) % 3;
    RawConnection* const made = add(turn_ == 0   ? registry()
                                    : turn_ == 1 ? pathOfConnection(root_, kUserInterface)
                                                 : pathOfConnection(root_, kInstaller));
    if (made && turn_ != 0) made->write(token());
  }
  void addUnfinished() {
    static const std::string frame =
        marshalled("services:", {Value(Data(kMaxPeerMessageBytes - 2 * kPeerMessageHeaderBytes))},
                   PeerMessageKind::kOneWay);
    turn_ = (turn_ + 1) % 2;
    RawConnection* const made =
        add(turn_ == 0 ? registry() : pathOfConnection(root_, kUserInterface));
    if (!made) return;
    if (turn_ != 0) made->write(token());
    made->write(std::string_view(frame).substr(0, frame.size() - 1));
  }
  void sendOneWay() {
    static const std::string frame = marshalled(
        "stopServices:", {Value(Array{"com.vantor.notificationbus"})}, PeerMessageKind::kOneWay);
    static const std::string many = [] {
      std::string all;
      while (all.size() < 60'000) all += frame;
      return all;
    }();
    if (connections_.size() < 20) {
      RawConnection* const made = add(pathOfConnection(root_, kUserInterface));
      if (made) made->write(token());
    }
    std::erase_if(connections_, [](const auto& held) { return !held->write(many); });
  }
  // Long questions that want no answer.
  void askWithoutWaiting() {
    static const std::string frames = [] {
      const Array labels(1000, Value("com.vantor.test.0"));
      return marshalled("awaitServices:", {Value(labels)}, PeerMessageKind::kOneWay) +
             marshalled("factsOfService:", {Value(std::string(30'000, 'x'))},
                        PeerMessageKind::kOneWay);
    }();
    if (connections_.size() < 20) {
      RawConnection* const made = add(pathOfConnection(root_, kOperator));
      if (made) made->write(token());
    }
    std::erase_if(connections_, [](const auto& held) { return !held->write(frames); });
  }
  void askInVain() {
    static const std::string lookup = marshalled(
        RegistryClient::kLookUp, {Value(Data(16)), Value("name"), {}}, PeerMessageKind::kTwoWay);
    static const std::string wrong =
        marshalled("NSConnectionAuthenticate:", {Value(Data(16))}, PeerMessageKind::kTwoWay);
    RawConnection named(pathOfConnection(root_, kUserInterface));
    if (named.isOpen()) named.write(wrong);
    if (connections_.empty()) add(registry());
    std::erase_if(connections_, [](const auto& held) {
      for (int i = 0; i < 100; ++i) {
        if (!held->write(lookup)) return true;
      }
      return !held->drain();
    });
  }
  // Stops and starts the first service, as often as it is answered.
  void changeServices() {
    static const std::string stop = marshalled(
        "stopServices:", {Value(Array(100, Value("com.vantor.test.0")))}, PeerMessageKind::kTwoWay);
    static const std::string start =
        marshalled("startServices:", {Value(Array(100, Value("com.vantor.test.0")))},
                   PeerMessageKind::kTwoWay);
    if (connections_.empty()) {
      RawConnection* const made = add(pathOfConnection(root_, kUserInterface));
      if (!made || !made->write(token())) return;
    }
    turn_ = (turn_ + 1) % 2;
    if (!connections_.back()->write(turn_ == 0 ? start : stop)) connections_.clear();
    std::erase_if(connections_, [](const auto& held) { return !held->drain(); });
  }
  // Ends an installer's work that nobody has begun.
  void evaluateServices() {
    static const std::string frame = marshalled("evaluateServices", {}, PeerMessageKind::kTwoWay);
    if (connections_.empty()) {
      RawConnection* const made = add(pathOfConnection(root_, kInstaller));
      if (!made || !made->write(token())) return;
    }
    if (!connections_.back()->write(frame)) connections_.clear();
    std::erase_if(connections_, [](const auto& held) { return !held->drain(); });
  }
  void addDescriptors() {
    static const UniqueFd null(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    static const std::string frame =
        marshalled("note:", {Value(Data(100))}, PeerMessageKind::kOneWay);
    // The daemon would lose descriptors that arrive with the end of the authentication.
    if (!connections_.empty()) {
      connections_.back()->writeWith(std::string_view(frame).substr(0, frame.size() - 1),
                                     std::vector<int>(kMaxPeerDescriptors, null.get()));
    }
    add(registry());
  }

  // Registers names over a connection of the product's own kind.
  [[noreturn]] void floodNames() {
    RegistryClient client(root_, system_);
    const UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Value endpoint = RegistryClient::endpointOf(listener);
    auto connection = client.connect();
    for (std::size_t number = 0;; ++number) {
      const std::string name = std::to_string(::getuid()) + "." + std::to_string(number);
      const auto answer = RegistryClient::ask(*connection, RegistryClient::kRegister,
                                              {endpoint, client.passkey(), Value(name)});
      if (!answer) connection = client.connect();
      RegistryClient::ask(*connection, RegistryClient::kLookUp,
                          {client.passkey(), Value("missing " + name)});
      begin();
    }
  }

  const std::string root_;
  const LinuxSystemInformation system_;
  UniqueFd begun_;
  std::vector<std::unique_ptr<RawConnection>> connections_;
  int turn_ = 0;
};

bool becomeUser(uid_t user, gid_t group) {
  return ::setgroups(1, &group) == 0 && ::setgid(group) == 0 && ::setuid(user) == 0 &&
         ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  if (!raiseDescriptorLimit()) return 1;
  const int users = std::atoi(argv[4]);
  std::array<int, 2> ends;
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return 1;
  const UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  for (int i = 0; i < users; ++i) {
    const pid_t child = ::fork();
    if (child < 0) return 1;
    if (child > 0) continue;
    if (!becomeUser(static_cast<uid_t>(std::atoi(argv[3]) + i),
                    static_cast<gid_t>(std::atoi(argv[5])))) {
      return 1;
    }
    Attacker(argv[1], std::move(writer)).flood(argv[2]);
  }
  writer.reset();
  char byte = 0;
  for (int i = 0; i < users; ++i) {
    if (::read(reader.get(), &byte, 1) != 1) return 1;
  }
  std::puts("flooding");
  std::fflush(stdout);
  while (::wait(nullptr) > 0) continue;
  return 0;
}
