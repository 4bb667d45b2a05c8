// The program that is installed as "servicemanagerctl". It answers "jobs show LABEL" itself, since
// scripts ask that often and the whole tool's libraries and options take several times as long. All
// else, also the explanation of any failure, is the whole tool's, which it executes.

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Texts/Utf8.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

struct Request {
  std::string label;
  std::string root = {};  // empty for that of this program
  bool json = false;
};

// Nothing if the command line is another one, or an unusual form of this one.
std::optional<Request> quickRequest(int count, const char* const* arguments) {
  Request request;
  int words = 0;
  for (int i = 1; i < count; ++i) {
    const std::string_view word = arguments[i];
    if (word == "--json" && words > 1) {
      request.json = true;
    } else if (word == "--root" && i + 1 < count && request.root.empty()) {
      request.root = arguments[++i];
      if (request.root.empty()) return std::nullopt;
    } else if (word.empty() || word.starts_with('-') || findIllFormedUtf8(word)) {
      return std::nullopt;
    } else if ((words == 0 && word == "jobs") || (words == 1 && word == "show")) {
      ++words;
    } else if (words == 2) {
      request.label = word;
      ++words;
    } else {
      return std::nullopt;
    }
  }
  return words == 3 ? std::optional(request) : std::nullopt;
}

// As ListenerPlaces::servers(), which would also look up users and groups.
PeerAudience serversOf(const std::string& root) {
  PeerAudience servers{.everybody = false, .user = {}, .group = {}};
  struct stat status{};
  if (::lstat(pathBelowRoot(root, "run/vantor").c_str(), &status) == 0 && S_ISDIR(status.st_mode))
    servers.user = status.st_uid;
  return servers;
}

// Prints the job. False if anything is in the way, and nothing has been printed.
bool showJob(const Request& request, const std::string& executable) {
  const auto root =
      request.root.empty() ? platformRootOfExecutable(executable) : platformRootAt(request.root);
  if (!root) return false;
  const auto loop = AsioRunLoop::create();
  if (!loop) return false;
  DBusPeerTransport transport(**loop);
  JobHostClient client(transport, **loop, jobHostSocket(*root), Duration::zero(), serversOf(*root));
  EmbeddedJobs jobs(client);
  const auto job = jobs.copyJob(request.label);
  if (!job || job->isNil()) return false;
  const JobState state = jobState(request.label, *job);
  print(request.json ? dumpedAnswer(asJson(state, *job))
                     : asText(state, *job, readerOf(STDOUT_FILENO)));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const auto executable = runningExecutablePath();
  if (!executable) return fail(executable.error());
  if (const auto request = quickRequest(argc, argv)) {
    std::setlocale(LC_CTYPE, "");
    prepareStandardFiles();
    letReaderLeave();
    if (showJob(*request, *executable)) return concludingStatus(EXIT_SUCCESS);
  }
  const std::string whole = *executable + "-full";
  ::execv(whole.c_str(), argv);
  std::perror(whole.c_str());
  return EXIT_FAILURE;
}
