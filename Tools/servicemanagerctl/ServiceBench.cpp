#include "Tools/servicemanagerctl/ServiceBench.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Files/PropertyListFile.h"
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

// A platform root that is removed again. Everybody may go through it, because the job may have
// another user.
class BenchRoot {
 public:
  static Result<BenchRoot> make() {
    std::string path = (fs::temp_directory_path() / "vantor-run.XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr || ::chmod(path.c_str(), 0755) != 0)
      return std::unexpected(platform::systemError(path));
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

Result<void> layOut(const BenchRoot& root, const ServiceBench& bench) {
  std::error_code error;
  for (const char* folder : {"etc/vantor", "Library/LaunchDaemons", "usr/bin", "log"}) {
    fs::create_directories(root.path(folder), error);
    if (error) return std::unexpected(Error{ErrorCode::kSystem, error.value(), root.path(folder)});
  }
  fs::copy_file(bench.hostProgram, root.path("usr/bin/jobhost"), error);
  if (error) return std::unexpected(Error{ErrorCode::kSystem, error.value(), bench.hostProgram});
  if (::mkfifo(root.path("output").c_str(), 0600) != 0 ||
      ::chmod(root.path("output").c_str(), 0622) != 0)
    return std::unexpected(platform::systemError(root.path("output")));
  Dictionary job = bench.job;
  for (const char* key : {"StandardOutPath", "StandardErrorPath"})
    job.set(key, root.path("output"));
  const auto form = platform::PropertyListFormat::kXml;
  auto written = platform::writePropertyListFile(root.path("etc/vantor/platform.plist"),
                                                 Dictionary{{"LogSink", "file"}}, form);
  if (!written) return written;
  return platform::writePropertyListFile(root.path("Library/LaunchDaemons/job.plist"), job, form);
}

// The host's standard error is a pipe, and its end the end of the host.
struct HostProcess {
  ::pid_t process = 0;
  UniqueFd log;
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

class Bench {
 public:
  Bench(const ServiceBench& bench, HostProcess host, UniqueFd output, UniqueFd signals)
      : bench_(bench),
        host_(std::move(host)),
        output_(std::move(output)),
        signals_(std::move(signals)),
        lines_(bench.label, bench.throttle) {}

  Result<void> run() {
    std::array<pollfd, 3> waiting{pollfd{host_.log.get(), POLLIN, 0},
                                  pollfd{output_.get(), POLLIN, 0},
                                  pollfd{signals_.get(), POLLIN, 0}};
    for (bool hostRuns = true; hostRuns;) {
      if (::poll(waiting.data(), waiting.size(), -1) < 0 && errno != EINTR)
        return std::unexpected(platform::systemError("poll"));
      if (waiting[1].revents != 0) showOutput();
      if (waiting[2].revents != 0) end();
      if (waiting[0].revents != 0) hostRuns = showLog();
    }
    showOutput();
    while (::waitpid(host_.process, nullptr, 0) < 0 && errno == EINTR) {
    }
    if (isAsked_ && !lines_.isRejected()) return {};
    return std::unexpected(Error{
        ErrorCode::kInvalid, 0,
        lines_.isRejected() ? "the job host rejects the job" : "the job host ended:\n" + log_});
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

  bool showLog() {
    std::string text;
    const bool goesOn = readInto(text, host_.log);
    log_ += text;
    std::size_t end = 0;
    while ((end = log_.find('\n')) != log_.npos) {
      if (const auto told = lines_.tell(std::string_view(log_).substr(0, end), bench_.now()))
        print("== " + *told + "\n");
      else if (log_.starts_with("jobhost: "))
        return goesOn;  // It could not start, and ends: its log is the reason.
      log_.erase(0, end + 1);
      if (lines_.isRejected() && !isAsked_) askToEnd();
    }
    return goesOn;
  }

  const ServiceBench& bench_;
  const HostProcess host_;
  const UniqueFd output_;
  const UniqueFd signals_;
  BenchLines lines_;
  std::string log_;  // the lines that have not been told
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
  auto host = startHost(root->path("usr/bin/jobhost"));
  if (!host) return std::unexpected(host.error());
  return Bench(bench, *std::move(host), std::move(output), std::move(signals)).run();
}
