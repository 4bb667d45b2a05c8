// The daemon's registry of endpoints, with as many clients as a machine may have, and with clients
// of another product.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <latch>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/EndpointOwner.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class DaemonEndpoints : public DaemonFixture {
 protected:
  // Each descriptor by its number and its link in /proc, which for a socket contains the inode.
  using Descriptors = std::set<std::pair<std::string, std::string>>;

  void SetUp() override {
    EXPECT_TRUE(raiseDescriptorLimit());
    start(1);
    atStart_ = descriptorsAtRest();
  }

  // The daemon takes some for a moment after its start, such as those of programs that it verifies.
  Descriptors descriptorsAtRest() {
    Descriptors last = descriptorsOfDaemon();
    for (int unchanged = 0; unchanged < 5;) {
      root_.loop().sleepFor(50ms);
      Descriptors now = descriptorsOfDaemon();
      unchanged = now == last ? unchanged + 1 : 0;
      last = std::move(now);
    }
    return last;
  }

  Descriptors descriptorsOfDaemon() {
    Descriptors descriptors;
    const std::filesystem::directory_iterator entries(
        "/proc/" + std::to_string(root_.processOf(DaemonRoot::kDaemon)) + "/fd");
    for (const auto& entry : entries) {
      std::error_code isGone;
      const auto target = std::filesystem::read_symlink(entry.path(), isGone);
      if (!isGone) descriptors.emplace(entry.path().filename(), target);
    }
    return descriptors;
  }
  // Expects the descriptors of the start, each unchanged, and this many more. The daemon needs a
  // few turns to notice that connections have ended.
  void expectDescriptors(std::size_t more) {
    const auto connection = askers_.connect();
    RegistryClient::ask(*connection, RegistryClient::kSignature);
    const std::size_t expected = atStart_.size() + more + 1;  // One is this connection.
    const Instant deadline = root_.loop().now() + 30s;
    Descriptors now = descriptorsOfDaemon();
    while (now.size() != expected && root_.loop().now() < deadline) {
      RegistryClient::ask(*connection, RegistryClient::kSignature);
      now = descriptorsOfDaemon();
    }
    EXPECT_EQ(now.size(), expected);
    EXPECT_TRUE(std::ranges::includes(now, atStart_)) << testing::PrintToString(now);
  }

  void registerOwner(EndpointOwner& owner, const std::string& name) {
    const auto connection = owners_.connect();
    EXPECT_EQ(RegistryClient::ask(*connection, RegistryClient::kRegister,
                                  {owner.endpoint(), owners_.passkey(), Value(name)}),
              (Array{Value(true), Value()}));
  }
  std::shared_ptr<const NSXPCListenerEndpoint> lookUp(const std::string& name) {
    const auto connection = askers_.connect();
    const auto found =
        RegistryClient::ask(*connection, RegistryClient::kLookUp, {askers_.passkey(), Value(name)});
    return found && !found->empty() ? endpointIn(found->front()) : nullptr;
  }
  // The answer of the endpoint's owner to another program; nothing if there is none.
  std::optional<Array> askOwner(std::shared_ptr<const NSXPCListenerEndpoint> endpoint) {
    return EndpointOwner::ask(askers_.xpc(), std::move(endpoint));
  }

  // Expects the daemon's main thread to answer within a time that only a slow machine needs.
  void expectMainThreadAnswers(UserInterfaceClient& interface) {
    const Instant begun = root_.loop().now();
    EXPECT_TRUE(interface.ask("pidForService:", {Value(DaemonRoot::label(0))}));
    EXPECT_LT(root_.loop().now() - begun, 30s);
  }

  Descriptors atStart_;
  // Two programs: one registers, the other looks up.
  RegistryClient owners_{root_.path(), root_.system()};
  RegistryClient askers_{root_.path(), root_.system()};
};

TEST_F(DaemonEndpoints, AThousandClientsAreServedWhileOthersDie) {
  constexpr int kClients = 1000;
  constexpr int kNames = 50;
  // Those of the clients, with room for the daemon's others and the test's own.
  constexpr std::uint64_t kDescriptors = 3 * kClients;
  if (softDescriptorLimit() < kDescriptors) GTEST_SKIP() << "too few descriptors";
  std::list<EndpointOwner> owners;
  std::vector<Value> endpoints;
  for (int i = 0; i < kNames; ++i) {
    owners.emplace_back(owners_.xpc(), std::to_string(i));
    endpoints.push_back(owners.back().endpoint());
    registerOwner(owners.back(), "name " + std::to_string(i));
  }
  expectDescriptors(kNames);
  std::list<ChildProgram> doomed;
  for (int i = 0; i < 3; ++i) {
    doomed.emplace_back(std::vector<std::string>{REGISTRY_PROGRAM, root_.path()},
                        std::vector<std::string>());
    EXPECT_EQ(doomed.back().nextLine(), "asking");
  }
  std::latch done(kClients);
  std::atomic<int> right = 0;
  std::atomic<int> finished = 0;
  const auto finish = [&] {
    ++finished;
    done.count_down();
  };
  // They go on until the main thread has answered in between.
  std::atomic<bool> hasMainThreadAnswered = false;
  std::function<void(NSXPCConnection*, const Value&)> lookUpAgain = [&](NSXPCConnection* connection,
                                                                        const Value& name) {
    connection->sendMessage(
        RegistryClient::kLookUp, {owners_.passkey(), name},
        [&, connection, name](const Array& found) {
          if (found.size() != 1 || !endpointIn(found[0])) return finish();
          if (!hasMainThreadAnswered) return lookUpAgain(connection, name);
          ++right;
          finish();
        },
        [&](const NSError&) { finish(); });
  };
  std::vector<std::shared_ptr<NSXPCConnection>> connections;
  for (int i = 0; i < kClients; ++i) {
    const auto number = static_cast<std::size_t>(i % kNames);
    const Value name("name " + std::to_string(number));
    NSXPCConnection* const connection = connections.emplace_back(owners_.connect()).get();
    connection->sendMessage(
        RegistryClient::kRegister, {endpoints[number], owners_.passkey(), name},
        [&, name, connection](const Array& reply) {
          if (reply != Array{Value(true), Value()}) return finish();
          lookUpAgain(connection, name);
        },
        [&](const NSError&) { finish(); });
    if (i == kClients / 2) {
      for (const ChildProgram& program : doomed) program.signal(SIGKILL);
    }
  }
  {
    UserInterfaceClient interface(root_);
    for (int i = 0; i < 2; ++i) expectMainThreadAnswers(interface);
    EXPECT_EQ(finished, 0);
    hasMainThreadAnswered = true;
  }
  done.wait();
  EXPECT_EQ(right, kClients);
  // Shows that the check would find leaked descriptors.
  EXPECT_GE(descriptorsOfDaemon().size(), atStart_.size() + kNames + kClients);
  connections.clear();
  for (ChildProgram& program : doomed) program.waitForExit();
  // Registrations stay, also those of clients that have died.
  constexpr std::size_t kDoomedNames = 40;
  expectDescriptors(kNames + kDoomedNames);

  for (int i = 0; i < kNames; ++i) {
    const std::string number = std::to_string(i);
    EXPECT_EQ(askOwner(lookUp("name " + number)), Array{Value(number)});
  }
  expectDescriptors(kNames + kDoomedNames);
  EXPECT_EQ(root_.starts(), 1U);
}

// Requests are served up to the last moment, by objects that the daemon destroys at its end.
TEST_F(DaemonEndpoints, ClientsThatAskWhileTheDaemonEndsHarmNothing) {
  for (int round = 0; round < 3; ++round) {
    std::list<ChildProgram> asking;
    for (int i = 0; i < 3; ++i) {
      asking.emplace_back(std::vector<std::string>{REGISTRY_PROGRAM, root_.path()},
                          std::vector<std::string>());
      EXPECT_EQ(asking.back().nextLine(), "asking");
    }
    root_.endDaemonAndAwaitNext();
    for (ChildProgram& program : asking) {
      program.signal(SIGKILL);
      program.waitForExit();
    }
  }
}

TEST_F(DaemonEndpoints, AWrongPasskeyIsIgnored) {
  EndpointOwner owner(owners_.xpc(), "right");
  registerOwner(owner, "name");
  EndpointOwner intruder(owners_.xpc(), "wrong");
  const Value foreign = intruder.endpoint();
  const Data right = *owners_.passkey().data();
  Data longer = right;
  longer.push_back(0);
  Data lastBit = right;
  lastBit.back() ^= 1;
  // A message with an endpoint must fit on the socket as it is.
  constexpr std::size_t kLong = kMaxPeerMessageBytes - 2 * kPeerMessageHeaderBytes;
  const std::vector<Value> wrong{Data(),
                                 Data(right.begin(), right.begin() + 1),
                                 Data(right.begin(), right.end() - 1),
                                 lastBit,
                                 longer,
                                 Data(kLong),
                                 clientProfileData(root_.system()),
                                 Value(),
                                 Value("text")};
  const auto connection = owners_.connect();
  std::atomic<int> answered = 0;
  for (const Value& passkey : wrong) {
    EXPECT_EQ(RegistryClient::ask(*connection, RegistryClient::kRegister,
                                  {foreign, passkey, Value("name")}),
              (Array{Value(false), Value("Invalid passkey for the registration.")}));
    connection->sendMessage(
        RegistryClient::kLookUp, {passkey, Value("name")}, [&](const Array&) { ++answered; },
        nullptr);
  }
  connection->sendMessage(
      RegistryClient::kLookUp, {Value(Data(4 * kMaxPeerMessageBytes)), Value("name")},
      [&](const Array&) { ++answered; }, nullptr);
  // A request after all of them on the same connection, which still works.
  EXPECT_EQ(RegistryClient::ask(*connection, RegistryClient::kSignature),
            Array{Value(clientProfileData(root_.system()))});
  EXPECT_EQ(answered, 0);
  EXPECT_EQ(askOwner(lookUp("name")), Array{Value("right")});
  root_.awaitLog("Received invalid passkey for registration.", wrong.size());
  root_.awaitLog("Received invalid passkey for listener endpoint request.", wrong.size() + 1);
  EXPECT_EQ(root_.logCount("<Error> [ORBServiceManagerXPCHandler.cpp"), 2 * (2 * wrong.size() + 1));
  connection->invalidate();
  EXPECT_EQ(answered, 0);
}

// A peer without a limit of its own for pending replies: its places are free again at once.
TEST_F(DaemonEndpoints, AnUnansweredCallHoldsNoPlace) {
  RawPeer peer(pathOfMachService(root_.path(), kEndpointRegistryService));
  peer.authenticate();
  const auto lookup = encodeMessage(RegistryClient::kLookUp, {Value(Data(16)), Value("name"), {}},
                                    PeerMessageKind::kTwoWay);
  const auto signature =
      encodeMessage(RegistryClient::kSignature, {Value()}, PeerMessageKind::kTwoWay);
  ASSERT_TRUE(lookup && signature);
  const std::string unanswered = RawPeer::marshalled(lookup->message.get(), 2);
  const std::string answered = RawPeer::marshalled(signature->message.get(), 3);
  // At once fewer than may wait to be served, and together more than may await a reply.
  constexpr std::size_t kAtOnce = kMaxPeerCallsAwaitingReply / 2;
  for (std::size_t round = 0; round < 5; ++round) {
    for (std::size_t i = 0; i < kAtOnce; ++i) ASSERT_TRUE(peer.write(unanswered));
    ASSERT_TRUE(peer.write(answered));
    pollfd entry{peer.socket(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
    std::array<char, 1024> bytes;
    const ssize_t size = ::recv(peer.socket(), bytes.data(), bytes.size(), 0);
    ASSERT_GT(size, 0);
    // One message, and no error: the answer to the last request.
    const int whole = dbus_message_demarshal_bytes_needed(bytes.data(), static_cast<int>(size));
    EXPECT_EQ(whole, size);
    const UniqueDBusMessage reply(
        dbus_message_demarshal(bytes.data(), static_cast<int>(size), nullptr));
    ASSERT_TRUE(reply);
    EXPECT_EQ(dbus_message_get_type(reply.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_EQ(dbus_message_get_reply_serial(reply.get()), 3U);
  }
}

TEST_F(DaemonEndpoints, UnknownNamesAndThoseOfDeadOwnersAreRequested) {
  std::vector<Value> requests;
  const auto observation = root_.center().addObserver(
      kEndpointRequestNotification, std::nullopt, [&](const DistributedNotification& notification) {
        requests.push_back(notification.userInfo);
        root_.changed();
      });
  EXPECT_EQ(lookUp("missing"), nullptr);
  root_.await("the request to register", [&] { return !requests.empty(); });
  EXPECT_EQ(requests, (std::vector<Value>{Dictionary{{"requestName", "missing"}}}));
  {
    RegistryClient mortal(root_.path(), root_.system());
    EndpointOwner owner(mortal.xpc(), "mortal");
    registerOwner(owner, "missing");
    EXPECT_EQ(askOwner(lookUp("missing")), Array{Value("mortal")});
  }
  // Its owner has died, so the name is asked for again.
  EXPECT_EQ(lookUp("missing"), nullptr);
  root_.await("another request to register", [&] { return requests.size() == 2; });
  EndpointOwner successor(owners_.xpc(), "successor");
  registerOwner(successor, "missing");
  EXPECT_EQ(askOwner(lookUp("missing")), Array{Value("successor")});
  EXPECT_EQ(requests.size(), 2U);
}

TEST_F(DaemonEndpoints, TheOperatorsCommandRegistersAndLooksUp) {
  const std::string control = root_.host().controlProgram();
  const auto missing = root_.host().control({"endpoints", "lookup", "mine"});
  EXPECT_EQ(missing.status.number, 1);
  EXPECT_THAT(missing.output, HasSubstr("mine is not registered"));
  ChildProgram registering({control, "endpoints", "register", "mine"}, {});
  EXPECT_THAT(registering.nextLine(), HasSubstr("mine is registered"));
  const auto found = root_.host().control({"endpoints", "lookup", "mine", "--json"});
  EXPECT_EQ(found.status.number, 0) << found.errors;
  EXPECT_THAT(found.output, HasSubstr("\"registered\": true"));
  EXPECT_EQ(askOwner(lookUp("mine")), std::nullopt);  // It rejects every peer.
  EXPECT_THAT(registering.nextLine(), HasSubstr("connects"));
}

// The next daemon does not know of it.
TEST_F(DaemonEndpoints, TheOperatorsRegistrationEndsWithTheDaemon) {
  ChildProgram registering({root_.host().controlProgram(), "endpoints", "register", "mine"}, {});
  EXPECT_THAT(registering.nextLine(), HasSubstr("mine is registered"));
  root_.killDaemon();
  EXPECT_EQ(registering.waitForExit(), (ExitStatus{ExitStatus::Kind::kExited, 1}));
  EXPECT_EQ(registering.errors(),
            "servicemanagerctl: the service manager has ended; mine is no longer registered\n");
  root_.awaitStart();
  EXPECT_EQ(lookUp("mine"), nullptr);
}

}  // namespace
}  // namespace platform
