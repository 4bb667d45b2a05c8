#include "Benchmarks/ProductProgram.h"

#include <csignal>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace benchmarks {

using namespace platform;

namespace {

class NullSink final : public LogSink {
 public:
  Result<void> write(const LogRecord&) override { return {}; }
};

struct Status final : MessageReceiver {
  MessageResult receiveMessage(std::string_view, const Array&) override { return Value(true); }
};

}  // namespace

ProductProgram::ProductProgram(const TemporaryFolder& root)
    : sink(std::make_unique<NullSink>()),
      log(*sink, "bench", ASL_LEVEL_DEBUG),
      loop(std::move(*AsioRunLoop::create())),
      system(defaultPlatformConfiguration(root.path()), "/proc"),
      connections(*loop, transport, center, log,
                  [&root](std::string_view name) { return pathOfConnection(root.path(), name); }) {
  addServiceManagerProtocols(protocols);
  addGlobalSettingsProtocol(protocols);
}

ProductServer::ProductServer(const TemporaryFolder& root, Serve serve) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return;
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  process_ = ::fork();
  if (process_ == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    serve(root, writeEnd.get());
    ::_exit(0);
  }
  writeEnd.reset();
  char ready = 0;
  started_ = ::read(readEnd.get(), &ready, 1) == 1;
}

ProductServer::~ProductServer() {
  if (process_ < 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(process_, nullptr, 0);
}

bool announceStart(int started) { return ::write(started, "y", 1) == 1; }

void serveObject(const TemporaryFolder& root, int started, const char* name, const char* protocol,
                 MessageReceiver& object) {
  ProductProgram program(root);
  KLXConnectionAuthenticator authenticator(program.system);
  const auto server = program.connections.makeConnection();
  server->setDelegate(&authenticator);
  server->setRootObject(
      std::make_shared<NSProtocolChecker>(&object, program.protocols.find(protocol)));
  if (!server->registerName(name) || !announceStart(started)) return;
  program.loop->run();
}

void serveStatus(const TemporaryFolder& root, int started) {
  Status status;
  serveObject(root, started, "com.vantor.service.configd.status",
              kORBServiceManagerConfigurationServerStatusProtocol, status);
}

}  // namespace benchmarks
