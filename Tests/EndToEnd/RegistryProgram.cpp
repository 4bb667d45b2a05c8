// A client of the registry of endpoints for a test to kill within a request: it registers and looks
// up over forty connections, without end. Prints "asking" when all of them have had an answer. Its
// argument is the platform root.

#include <cstdio>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Tests/EndToEnd/RegistryClient.h"

namespace {

using namespace platform;

constexpr std::ptrdiff_t kConnections = 40;

class Asker {
 public:
  Asker(RegistryClient& client, Value endpoint, std::string name, std::latch& answered)
      : client_(client),
        connection_(client.connect()),
        endpoint_(std::move(endpoint)),
        name_(std::move(name)),
        answered_(answered) {}

  void begin() {
    connection_->sendMessage(
        RegistryClient::kRegister, {endpoint_, client_.passkey(), Value(name_)},
        [this](const Array&) { lookUp(); }, [](const NSError&) {});
  }

 private:
  void lookUp() {
    connection_->sendMessage(
        RegistryClient::kLookUp, {client_.passkey(), Value(name_)},
        [this](const Array&) {
          if (!std::exchange(hasAnswer_, true)) answered_.count_down();
          begin();
        },
        [](const NSError&) {});
  }

  RegistryClient& client_;
  const std::shared_ptr<NSXPCConnection> connection_;
  const Value endpoint_;
  const std::string name_;
  std::latch& answered_;
  bool hasAnswer_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const LinuxSystemInformation system(defaultPlatformConfiguration(argv[1]), "/proc");
  RegistryClient client(argv[1], system);
  const auto listener = client.xpc().makeAnonymousListener();
  const Value endpoint(std::shared_ptr<const RemoteObject>(listener->endpoint()));
  std::latch answered(kConnections);
  std::vector<std::unique_ptr<Asker>> askers;
  for (std::ptrdiff_t i = 0; i < kConnections; ++i) {
    askers.push_back(
        std::make_unique<Asker>(client, endpoint, "doomed " + std::to_string(i), answered));
    askers.back()->begin();
  }
  answered.wait();
  std::puts("asking");
  std::fflush(stdout);
  for (;;) ::pause();
}
