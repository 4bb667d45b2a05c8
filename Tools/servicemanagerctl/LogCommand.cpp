#include "Tools/servicemanagerctl/LogCommand.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/LogReader.h"
#include "Tools/servicemanagerctl/Output.h"

namespace {

using namespace platform;
using Sink = PlatformConfiguration::LogSink;

constexpr std::size_t kLinesBefore = 10;

// Returns the exit status if nothing more can be copied. main() reports output that could not be
// written.
std::optional<int> copyRest(LogReader& reader) {
  for (;;) {
    const auto part = reader.next();
    if (!part) return fail(part.error());
    if (part->empty()) return std::nullopt;
    if (!print(*part)) return EXIT_SUCCESS;
  }
}

// The descriptor becomes readable when something in the folder changes.
Result<UniqueFd> watchFolder(const std::string& folder) {
  UniqueFd notices(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!notices) return std::unexpected(systemError("inotify_init1"));
  if (::inotify_add_watch(notices.get(), folder.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0)
    return std::unexpected(systemError("watching " + folder));
  return notices;
}

void discardNotices(const UniqueFd& notices) {
  std::array<char, 4096> buffer{};
  while (::read(notices.get(), buffer.data(), buffer.size()) > 0) {
  }
}

int follow(const std::string& path, RunLoop& loop) {
  LogReader reader(path);
  // The watch begins before the first read, so that no line is missed in between.
  const auto notices = watchFolder(std::filesystem::path(path).parent_path());
  if (!notices) return fail(notices.error());
  if (const auto skipped = reader.skipToLast(kLinesBefore); !skipped) return fail(skipped.error());
  std::optional<int> ended = copyRest(reader);
  if (ended) return *ended;
  const auto source = loop.watchReadable(notices->get(), Urgency::kOrdinary, [&] {
    discardNotices(*notices);
    ended = copyRest(reader);
    if (ended) loop.stop();
  });
  if (!source) return fail(source.error());
  loop.run();
  return ended.value_or(EXIT_SUCCESS);
}

}  // namespace

LogCommand::LogCommand(CLI::App& app)
    : log_(app.add_subcommand("log", "The log of the product below the platform root")) {
  log_->add_flag("-f,--follow", follow_, "The last lines, and then each line as it is written");
}

int LogCommand::run(const PlatformConfiguration& configuration, RunLoop& loop) const {
  if (configuration.logSink == Sink::kJournal)
    return fail(
        "this platform logs to the journal; read it with \"journalctl _COMM=servicemanagerd + "
        "_COMM=jobhost\", and with -f to follow it");
  if (configuration.logSink == Sink::kSyslog)
    return fail(
        "this platform logs to the system log; its daemon decides where that goes, usually "
        "/var/log/daemon.log and /var/log/syslog");
  const std::string path = logFile(configuration.root);
  if (follow_) return follow(path, loop);
  std::error_code error;
  if (!std::filesystem::exists(path, error) && !error)
    return fail(fmt::format("nothing has been logged yet: there is no {}", path));
  LogReader reader(path);
  return copyRest(reader).value_or(EXIT_SUCCESS);
}
