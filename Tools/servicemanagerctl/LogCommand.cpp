#include "Tools/servicemanagerctl/LogCommand.h"

#include <array>
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "Platform/Linux/LogSinkChoice.h"
#include "Platform/Linux/SystemCall.h"
#include "Platform/Linux/UniqueFd.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/LogReader.h"
#include "Tools/servicemanagerctl/Output.h"

namespace {

using namespace platform;
using Sink = PlatformConfiguration::LogSink;

constexpr std::size_t kLinesBefore = 10;

enum class Copied { kAll, kNobodyReads, kFailed };

Copied copyRest(LogReader& reader) {
  for (;;) {
    const auto part = reader.next();
    if (!part) {
      fail(describe(part.error()));
      return Copied::kFailed;
    }
    if (part->empty()) return Copied::kAll;
    if (!print(*part)) return Copied::kNobodyReads;
  }
}

int statusOf(Copied copied) {
  // Who has seen enough (a pager, head) has been served.
  return copied == Copied::kFailed ? kExitFailed : EXIT_SUCCESS;
}

// Tells by a readable descriptor that something changes in the folder.
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
  // Watched before it is read, so that nothing can happen in between.
  const auto notices = watchFolder(std::filesystem::path(path).parent_path());
  if (!notices) return fail(describe(notices.error()));
  if (const auto skipped = reader.skipToLast(kLinesBefore); !skipped)
    return fail(describe(skipped.error()));
  Copied copied = copyRest(reader);
  if (copied != Copied::kAll) return statusOf(copied);
  const auto source = loop.watchReadable(notices->get(), Urgency::kOrdinary, [&] {
    discardNotices(*notices);
    copied = copyRest(reader);
    if (copied != Copied::kAll) loop.stop();
  });
  if (!source) return fail(describe(source.error()));
  loop.run();
  return statusOf(copied);
}

}  // namespace

LogCommand::LogCommand(CLI::App& app)
    : log_(app.add_subcommand("log", "The log of the product below the platform root")) {
  log_->add_flag("-f,--follow", follow_, "The last lines, and then each line as it is written");
}

int LogCommand::run(const PlatformConfiguration& configuration, RunLoop& loop) const {
  if (configuration.logSink == Sink::kJournal)
    return fail(
        "this platform logs to the journal; read it with \"journalctl SYSLOG_FACILITY=3\", and "
        "with "
        "-f to follow it");
  if (configuration.logSink == Sink::kSyslog)
    return fail(
        "this platform logs to the system log; its daemon decides where that goes, usually "
        "/var/log/daemon.log and /var/log/syslog");
  const std::string path = logFile(configuration.root);
  if (!std::filesystem::exists(path) && !follow_)
    return fail(fmt::format("nothing has been logged yet: there is no {}", path));
  if (follow_) return follow(path, loop);
  LogReader reader(path);
  return statusOf(copyRest(reader));
}
