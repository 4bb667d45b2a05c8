// A job host for the tests, which reads commands as lines from standard input and answers on
// standard output. Its argument is the platform root.
//
//   submit LABEL SECONDS   a job whose process is named after it, throttled so
//   serve LABEL SECONDS    the same with a service of that name
//   remove LABEL
//   list                   "LABEL PID" for each job, then "end"

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "JobHost/JobHost.h"
#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/RuntimeFolders.h"
#include "Platform/Linux/Logging/StandardErrorLogSink.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"

namespace {

using namespace jobhost;
using platform::Value;

void say(const std::string& line) {
  const std::string text = line + "\n";
  if (::write(1, text.data(), text.size()) < 0) std::abort();
}

[[noreturn]] void fail(const platform::Error& error) {
  std::fputs((platform::describe(error) + "\n").c_str(), stderr);
  std::exit(EXIT_FAILURE);
}

void sayOutcome(JobHost::Outcome outcome) {
  say(outcome ? "done" : "refused: " + outcome.error().localizedDescription);
}

void submit(JobHost& host, const std::string& label, int seconds, platform::Dictionary services) {
  auto job = parseJobDefinition(Value(platform::Dictionary{
      {"Label", label},
      {"Program", "/bin/sleep"},
      {"ProgramArguments", platform::Array{label, "1000"}},
      {"KeepAlive", true},
      {"ThrottleInterval", seconds},
      {"MachServices", std::move(services)},
  }));
  if (!job) fail(job.error());
  host.submit(*std::move(job), sayOutcome);
}

void obey(JobHost& host, const std::string& order) {
  std::istringstream words(order);
  std::string verb;
  std::string label;
  int seconds = 0;
  words >> verb >> label >> seconds;
  if (verb == "submit") return submit(host, label, seconds, {});
  if (verb == "serve") return submit(host, label, seconds, {{label, true}});
  if (verb == "remove") return host.remove(label, sayOutcome);
  for (const std::string& known : host.labels()) {
    say(known + " " + std::to_string(host.copy(known)["PID"].integer().value_or(0)));
  }
  say("end");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: job_host_program ROOT\n", stderr);
    return EXIT_FAILURE;
  }
  auto loop = platform::AsioRunLoop::create();
  if (!loop) fail(loop.error());
  platform::StandardErrorLogSink sink;
  platform::SystemLog log(sink, "job_host_program", platform::ASL_LEVEL_WARNING);
  auto processes = LinuxProcesses::create(**loop, 1024, hostMark(argv[1], *readBootId()));
  if (!processes) fail(processes.error());
  JobHostOptions options;
  options.root = argv[1];
  options.bootId = *readBootId();
  auto host = JobHost::create(**loop, **processes, log, std::move(options));
  if (!host) fail(host.error());

  std::string orders;
  const auto input = (*loop)->watchReadable(0, platform::Urgency::kOrdinary, [&] {
    char bytes[4096];
    const ssize_t count = ::read(0, bytes, sizeof bytes);
    if (count <= 0) return (*loop)->stop();
    orders.append(bytes, static_cast<std::size_t>(count));
    for (std::size_t end; (end = orders.find('\n')) != orders.npos; orders.erase(0, end + 1)) {
      obey(**host, orders.substr(0, end));
    }
  });
  if (!input) fail(input.error());
  say("ready");
  (*loop)->run();
  return EXIT_SUCCESS;
}
