#include <cerrno>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/Systemd/SystemdManager.h"
#include "Tools/servicemanagerctl/DaemonClient.h"
#include "Tools/servicemanagerctl/DoctorProbes.h"

using namespace platform;
using State = ServerFact::State;

namespace {

ServerFact factOf(const PeerConnectFailure& failure) {
  using Kind = PeerConnectFailure::Kind;
  const std::string text = describe(failure.error);
  switch (failure.kind) {
    case Kind::kNobodyThere:
      return {State::kAbsent, text, {}};
    case Kind::kTimedOut:
      return {State::kHangs, {}, {}};
    case Kind::kRefused:
      // Its owner, not this user, lacks the right.
      if (failure.error.osError == EPERM) return {State::kNotTrusted, text, {}};
      if (failure.error.osError == EACCES || ::geteuid() != 0)
        return {State::kNotPermitted, text, {}};
      break;
    case Kind::kSystem:
      break;
  }
  return {State::kFailed, text, {}};
}

ServerFact probePeer(PeerTransport& transport, const std::string& socket,
                     const PeerAudience& servers, std::string installed) {
  const auto connected =
      transport.connect(socket, {.timeout = kServerProbeTime, .servers = servers});
  if (!connected) return factOf(connected.error());
  return {State::kAnswers, {}, RunningProgram{(*connected)->peer().process, std::move(installed)}};
}

ServerFact factOfBusError(const Error& error) {
  const std::string text = describe(error);
  switch (error.osError) {
    case EACCES:
    case EPERM:
      return {State::kNotPermitted, text, {}};
    case ETIMEDOUT:
    case EAGAIN:
      return {State::kHangs, {}, {}};
    case ENOENT:
    case ECONNREFUSED:
      return {State::kAbsent, text, {}};
    default:
      return {State::kFailed, text, {}};
  }
}

// The beginning of D-Bus's authentication, as whose answer the bus shows that its loop turns.
ServerFact greetBus(const UniqueFd& socket) {
  std::string greeting(1, '\0');
  greeting += "AUTH EXTERNAL ";
  for (const char digit : std::to_string(::geteuid()))
    greeting += fmt::format("{:02x}", static_cast<unsigned char>(digit));
  greeting += "\r\n";
  const auto sent = ::send(socket.get(), greeting.data(), greeting.size(), MSG_NOSIGNAL);
  if (sent < 0) return factOfBusError(systemError("greeting the bus"));
  pollfd awaited{.fd = socket.get(), .events = POLLIN, .revents = 0};
  constexpr auto kLimit =
      std::chrono::duration_cast<std::chrono::milliseconds>(kServerProbeTime).count();
  if (retryOnInterrupt([&] { return ::poll(&awaited, 1, static_cast<int>(kLimit)); }) <= 0)
    return {State::kHangs, {}, {}};
  char answer[256];
  const ssize_t size = ::recv(socket.get(), answer, sizeof answer, MSG_DONTWAIT);
  if (size <= 0) return {State::kFailed, "it has closed the connection", {}};
  const std::string_view text(answer, static_cast<std::size_t>(size));
  if (text.starts_with("OK")) return {State::kAnswers, {}, {}};
  if (text.starts_with("REJECTED")) return {State::kNotPermitted, "it rejects this user", {}};
  return {State::kFailed, "it speaks another protocol", {}};
}

}  // namespace

Fact<bool> executesFile(ProcessId process, const std::string& path) {
  struct stat running{};
  const std::string link = fmt::format("/proc/{}/exe", process);
  if (::stat(link.c_str(), &running) != 0) return notKnown(link);
  struct stat file{};
  return ::stat(path.c_str(), &file) == 0 && file.st_dev == running.st_dev &&
         file.st_ino == running.st_ino;
}

ServerFact probeHost(const DoctorEnvironment& environment, const ListenerPlaces& places) {
  return probePeer(environment.transport, jobHostSocket(environment.configuration.root),
                   places.servers(), environment.hostProgram);
}

// The server of user interfaces is served by the main thread. The operator's server has a thread of
// its own, and would answer although the service manager decides nothing.
ServerFact probeDaemon(const DoctorEnvironment& environment, const ListenerPlaces& places) {
  const ListenerPlace place = places.connection(kUserInterfaceServer);
  return probePeer(environment.transport, place.path, place.servers,
                   daemonProgramOf(environment.configuration.root));
}

// Its socket is made by the job host and accepts connections without a bus, so the bus itself has
// to answer.
ServerFact probeBus(const PlatformConfiguration& configuration) {
  constexpr std::string_view kPath = "unix:path=";
  const std::string address = notificationBusAddress(configuration);
  if (!address.starts_with(kPath)) return {State::kFailed, "it has no path: " + address, {}};
  const auto socket = connectToSocket(address.substr(kPath.size()), kServerProbeTime);
  return socket ? greetBus(*socket) : factOfBusError(socket.error());
}

ServerFact probeSystemd() {
  SystemdManager manager;
  const auto status = manager.statusOf("vantor-jobhost.service");
  if (status) return {State::kAnswers, {}, {}};
  if (status.error().code == ErrorCode::kNotFound)
    return {State::kAbsent, describe(status.error()), {}};
  return factOfBusError(status.error());
}
