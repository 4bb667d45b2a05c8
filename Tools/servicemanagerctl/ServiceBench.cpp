#include "Tools/servicemanagerctl/ServiceBench.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Files/PropertyListFile.h"
#include "Platform/Linux/NamedConnections/AccountNumbers.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tools/servicemanagerctl/BenchLines.h"
#include "Tools/servicemanagerctl/Output.h"

namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::UniqueFd;

// A platform root that is removed again. Other users have no access.
class BenchRoot {
 public:
  static Result<BenchRoot> make() {
    std::string path = (fs::temp_directory_path() / "vantor-run.XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr) return std::unexpected(platform::systemError(path));
    return BenchRoot(path);
  }
  BenchRoot(BenchRoot&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  BenchRoot& operator=(BenchRoot&&) = delete;
  ~BenchRoot() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }

  std::string path(const std::string& below) const { return path_ + "/" + below; }

 private:
  explicit BenchRoot(std::string path) : path_(std::move(path)) {}

  std::string path_;
};

struct JobUser {
  ::uid_t user;
  ::gid_t group;
};

// Nothing if the job has no user of its own, or one that the job host will reject as unknown.
std::optional<JobUser> userOf(const Dictionary& job) {
  const auto name = job["UserName"].string();
  const auto* const entry = name ? ::getpwnam(name->c_str()) : nullptr;
  if (entry == nullptr) return {};
  JobUser user{entry->pw_uid, entry->pw_gid};
  if (const auto group = job["GroupName"].string())
    user.group = platform::groupNumber(*group).value_or(user.group);
  return user;
}

// The terminal shows all that is written into the pipe, so only the job's user can write into it.
// The job host opens it as that user, who gets no other permission in the root.
Result<void> makeOutput(const BenchRoot& root, const Dictionary& job) {
  const std::string pipe = root.path("output");
  if (::mkfifo(pipe.c_str(), 0600) != 0) return std::unexpected(platform::systemError(pipe));
  const auto user = userOf(job);
  if (!user) return {};
  constexpr ::uid_t kUnchanged = -1;
  const std::string folder = root.path("");
  if (::chown(pipe.c_str(), user->user, user->group) != 0)
    return std::unexpected(platform::systemError(pipe));
  if (::chown(folder.c_str(), kUnchanged, user->group) != 0 || ::chmod(folder.c_str(), 0710) != 0)
    return std::unexpected(platform::systemError(folder));
  return {};
}

Result<void> layOut(const BenchRoot& root, const ServiceBench& bench) {
  std::error_code error;
  for (const char* folder : {"etc/vantor", "Library/LaunchDaemons", "usr/bin", "log"}) {
    fs::create_directories(root.path(folder), error);
    if (error) return std::unexpected(Error{ErrorCode::kSystem, error.value(), root.path(folder)});
  }
  fs::copy_file(bench.hostProgram, root.path("usr/bin/jobhost"), error);
  if (error) return std::unexpected(Error{ErrorCode::kSystem, error.value(), bench.hostProgram});
  if (auto made = makeOutput(root, bench.job); !made) return made;
  Dictionary job = bench.job;
  for (const char* key : {"StandardOutPath", "StandardErrorPath"})
    job.set(key, root.path("output"));
  const auto form = platform::PropertyListFormat::kXml;
  auto written = platform::writePropertyListFile(root.path("etc/vantor/platform.plist"),
                                                 Dictionary{{"LogSink", "file"}}, form);
  if (!written) return written;
  return platform::writePropertyListFile(root.path("Library/LaunchDaemons/job.plist"), job, form);
}

// The host's standard error is a pipe, whose end is the end of the host.
struct HostProcess {
  ::pid_t process = 0;
  UniqueFd errors;
};

Result<HostProcess> startHost(const std::string& program) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::unexpected(platform::systemError("pipe2"));
  HostProcess host{0, UniqueFd(ends[0])};
  const UniqueFd writing(ends[1]);
  host.process = ::fork();
  if (host.process < 0) return std::unexpected(platform::systemError("fork"));
  if (host.process > 0) return host;
  // A process group of its own, so that the terminal's signals come to this program only.
  ::setpgid(0, 0);
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  ::dup2(null, STDIN_FILENO);
  ::dup2(null, STDOUT_FILENO);
  ::dup2(writing.get(), STDERR_FILENO);
  ::execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
  ::_exit(EXIT_FAILURE);
}

// Reads what is there. False at the end of the file.
bool readInto(std::string& text, const UniqueFd& file) {
  std::array<char, 4096> bytes;
  const auto got = ::read(file.get(), bytes.data(), bytes.size());
  if (got > 0) text.append(bytes.data(), static_cast<std::size_t>(got));
  return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

// The log that the host writes, from its beginning.
class HostLog {
 public:
  static Result<HostLog> open(const std::string& path) {
    HostLog log;
    log.file_.reset(::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0640));
    log.changes_.reset(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (!log.file_ || !log.changes_ ||
        ::inotify_add_watch(log.changes_.get(), path.c_str(), IN_MODIFY) < 0)
      return std::unexpected(platform::systemError(path));
    return log;
  }

  // Readable when there may be new lines.
  int changes() const { return changes_.get(); }

  // Calls `each` for each new line.
  void read(const std::function<void(std::string_view)>& each) {
    std::string ignored;
    readInto(ignored, changes_);
    while (readInto(text_, file_)) {
    }
    for (std::size_t end = 0; (end = text_.find('\n')) != text_.npos; text_.erase(0, end + 1))
      each(std::string_view(text_).substr(0, end));
  }

 private:
  HostLog() = default;

  UniqueFd file_;
  UniqueFd changes_;
  std::string text_;
};

class Bench {
 public:
  Bench(const ServiceBench& bench, HostProcess host, HostLog log, UniqueFd output, UniqueFd signals)
      : bench_(bench),
        host_(std::move(host)),
        log_(std::move(log)),
        output_(std::move(output)),
        signals_(std::move(signals)),
        lines_(bench.label, bench.throttle) {}

  Result<void> run() {
    std::array<pollfd, 4> waiting{
        pollfd{host_.errors.get(), POLLIN, 0}, pollfd{log_.changes(), POLLIN, 0},
        pollfd{output_.get(), POLLIN, 0}, pollfd{signals_.get(), POLLIN, 0}};
    std::string errors;
    for (bool hostRuns = true; hostRuns;) {
      if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR)
        return std::unexpected(platform::systemError("poll"));
      if (waiting[2].revents != 0) showOutput();
      if (waiting[3].revents != 0) end();
      if (waiting[1].revents != 0) showLog();
      if (waiting[0].revents != 0) hostRuns = readInto(errors, host_.errors);
    }
    showOutput();
    showLog();
    while (::waitpid(host_.process, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (lines_.isRejected())
      return std::unexpected(Error{ErrorCode::kInvalid, 0, "the job host rejects the job"});
    if (isAsked_) return {};
    return std::unexpected(Error{ErrorCode::kInvalid, 0, "the job host ended: " + errors});
  }

 private:
  void showOutput() {
    std::string text;
    readInto(text, output_);
    if (!text.empty()) print(text);
  }

  void end() {
    signalfd_siginfo received{};
    if (::read(signals_.get(), &received, sizeof received) < 0 || isAsked_) return;
    print("== asked to end: SIGTERM, and SIGKILL after \"ExitTimeOut\"\n");
    askToEnd();
  }

  void askToEnd() {
    isAsked_ = true;
    lines_.end();
    ::kill(host_.process, SIGTERM);
  }

  void showLog() {
    log_.read([this](std::string_view line) {
      if (const auto told = lines_.tell(line, bench_.now())) print("== " + escaped(*told) + "\n");
    });
    if (lines_.isRejected() && !isAsked_) askToEnd();
  }

  const ServiceBench& bench_;
  const HostProcess host_;
  HostLog log_;
  const UniqueFd output_;
  const UniqueFd signals_;
  BenchLines lines_;
  bool isAsked_ = false;
};

}  // namespace

Result<void> runOnBench(const ServiceBench& bench) {
  const auto root = BenchRoot::make();
  if (!root) return std::unexpected(root.error());
  if (auto done = layOut(*root, bench); !done) return done;
  // For reading and writing, so that it has no end while the job does not run.
  UniqueFd output(::open(root->path("output").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (!output) return std::unexpected(platform::systemError(root->path("output")));
  sigset_t ends;
  ::sigemptyset(&ends);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&ends, number);
  ::sigprocmask(SIG_BLOCK, &ends, nullptr);
  UniqueFd signals(::signalfd(-1, &ends, SFD_CLOEXEC));
  if (!signals) return std::unexpected(platform::systemError("signalfd"));
  auto log = HostLog::open(root->path("log/system.log"));
  if (!log) return std::unexpected(log.error());
  auto host = startHost(root->path("usr/bin/jobhost"));
  if (!host) return std::unexpected(host.error());
  return Bench(bench, *std::move(host), *std::move(log), std::move(output), std::move(signals))
      .run();
}
