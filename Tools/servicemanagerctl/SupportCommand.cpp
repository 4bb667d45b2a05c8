#include "Tools/servicemanagerctl/SupportCommand.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <span>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/ProgramArguments.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/DoctorFindings.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Explanation.h"
#include "Tools/servicemanagerctl/ExtensionsReport.h"
#include "Tools/servicemanagerctl/HealthReport.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ServiceQuery.h"
#include "Tools/servicemanagerctl/ServicesReport.h"
#include "Tools/servicemanagerctl/SupportLogs.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

using Json = nlohmann::ordered_json;

// A service manager that does not accept a connection in this time has no parts in the bundle.
constexpr Duration kBundleAcceptTime = std::chrono::seconds(2);
constexpr std::size_t kMaxConfigurationBytes = std::size_t{64} * 1024;

SupportPart partOf(std::string name, std::string what, const Answer<Json>& json) {
  SupportPart part{.name = std::move(name), .what = std::move(what)};
  if (json)
    part.content = dumped(*json);
  else
    part.whyMissing = json.error().text;
  return part;
}

std::string firstLineOf(const std::string& path) {
  const auto file = openRegularFile(path, FinalLink::kFollow);
  if (!file) return "";
  const auto text = readAtMost(file->get(), 1024, path);
  return text ? text->substr(0, text->find('\n')) : "";
}

SupportPart partOfMachine(WallTime now) {
  utsname name{};
  ::uname(&name);
  const Json json{{"version", std::string(productVersion())},
                  {"made", jsonOf(Value(dateAt(now)))},
                  {"system", firstLineOf("/etc/os-release")},
                  {"kernel", fmt::format("{} {}", name.release, name.version)},
                  {"machine", name.machine},
                  {"user", ::geteuid()}};
  return partOf("versions.json", "this program, the system and the kernel", json);
}

SupportPart partOfConfiguration(const std::string& root) {
  SupportPart part{.name = "platform.plist", .what = "the configuration of the platform"};
  const std::string path = pathBelowRoot(root, "etc/vantor/platform.plist");
  const auto file = openRegularFile(path);
  auto content =
      file ? readToEnd(file->get(), kMaxConfigurationBytes, path) : std::unexpected(file.error());
  if (content)
    part.content = *std::move(content);
  else
    part.whyMissing = describe(content.error());
  return part;
}

SupportPart partOfJobs(EmbeddedJobs& jobs, const DoctorFacts& facts) {
  const auto list = [&]() -> Answer<Json> {
    // A question would wait for it again.
    if (facts.host.state == ServerFact::State::kHangs)
      return std::unexpected(Refusal{kExitFailed, "the job host does not answer"});
    const auto states = jobs.copyJobStates();
    if (!states)
      return std::unexpected(
          Refusal{exitStatusOf(states.error()), states.error().localizedDescription});
    Json json = Json::array();
    for (const JobState& job : jobStates(*states)) json.push_back(asJson(job));
    return json;
  };
  return partOf("jobs.json", "the jobs of the job host", list());
}

// Questions to the operator's server.

Answer<void> connectInTime(const DaemonClient::Environment& environment, DaemonClient& daemon) {
  const ListenerPlace place = environment.place(kOperatorServer);
  const auto tried = environment.transport.connect(
      place.path, {.timeout = kBundleAcceptTime, .servers = place.servers});
  if (!tried && tried.error().kind == PeerConnectFailure::Kind::kTimedOut)
    return std::unexpected(Refusal{kExitFailed, "the service manager does not answer"});
  return daemon.connect();
}

Answer<Json> servicesForBundle(DaemonClient& daemon, const DaemonClient::Environment& environment) {
  const auto answer = askForServices(daemon, {}, environment.objects.system,
                                     environment.objects.loop.wallTime(), Trees::kAsked);
  if (!answer) return std::unexpected(answer.error());
  return asJson(answer->services);
}

Answer<Json> healthForBundle(DaemonClient& daemon) {
  const auto record = askAboutAllServices(daemon, "healthRecordFrom:");
  if (!record) return std::unexpected(record.error());
  return asJson(healthReport(*record));
}

Answer<Json> extensionsForBundle(DaemonClient& daemon) {
  const auto facts = daemon.ask("extensions");
  if (!facts) return std::unexpected(facts.error());
  return jsonOfExtensions(*facts);
}

Answer<Json> explanationsForBundle(DaemonClient& daemon) {
  const auto overview = askAboutAllServices(daemon, "overviewFrom:");
  if (!overview) return std::unexpected(overview.error());
  Json json = Json::array();
  for (const std::string& label :
       labelsIn(Dictionary{{kFactServices, (*overview)[kFactServices]}})) {
    const auto facts = daemon.ask("factsOfService:", {label});
    if (!facts) return std::unexpected(facts.error());
    const Value told = withoutSettings(*facts);
    json.push_back(asJson(explain(told), told));
  }
  return json;
}

void addPartsOfDaemon(std::vector<SupportPart>& parts,
                      const DaemonClient::Environment& environment) {
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  Answer<void> reached = connectInTime(environment, daemon);
  // After one question without an answer the others are not asked.
  const auto ask = [&](const char* name, const char* what,
                       const std::function<Answer<Json>()>& question) {
    const Answer<Json> json = reached ? question() : std::unexpected(reached.error());
    if (!json) reached = std::unexpected(json.error());
    parts.push_back(partOf(name, what, json));
  };
  ask("services.json", "all services, as list shows them",
      [&] { return servicesForBundle(daemon, environment); });
  ask("health.json", "the health record", [&] { return healthForBundle(daemon); });
  ask("extensions.json", "the kernel extensions", [&] { return extensionsForBundle(daemon); });
  ask("explain.json", "why each service runs or does not",
      [&] { return explanationsForBundle(daemon); });
}

// The file must be new, so neither a link nor another user's file gets the content.
Result<void> writeNewFile(const std::string& path, std::string_view content) {
  const UniqueFd file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) return std::unexpected(systemError(path));
  while (!content.empty()) {
    const ssize_t size =
        retryOnInterrupt([&] { return ::write(file.get(), content.data(), content.size()); });
    if (size <= 0) {
      auto error = systemError(path);
      ::unlink(path.c_str());
      return std::unexpected(std::move(error));
    }
    content.remove_prefix(static_cast<std::size_t>(size));
  }
  return {};
}

}  // namespace

SupportCommand::SupportCommand(CLI::App& app)
    : bundle_(app.add_subcommand("support-bundle",
                                 "Make a file for a supporter, without the values of settings")) {
  bundle_->add_option(kFileOption, file_, "The new file, a tar archive with gzip")->required();
  bundle_->add_flag("--json", json_, "For programs");
}

int SupportCommand::run(const Environment& environment) const {
  const DoctorFacts facts = probe(environment.doctor);
  std::vector<SupportPart> parts{partOfMachine(environment.doctor.now)};
  parts.push_back(
      partOf("doctor.json", "the faults of the installation", asJson(doctorFindings(facts))));
  parts.push_back(partOf("platform.json", "the facts of the platform layer", environment.platform));
  parts.push_back(partOfConfiguration(environment.daemon.root));
  addPartsOfDaemon(parts, environment.daemon);
  parts.push_back(partOfJobs(environment.jobs, facts));
  std::ranges::move(supportLogs(environment.doctor.configuration), std::back_inserter(parts));
  return write(std::move(parts), environment.doctor.now);
}

int SupportCommand::runWithout(const platform::Error& platformFault, WallTime now) const {
  const DoctorFacts facts{.platformFault = describe(platformFault)};
  return write({partOfMachine(now), partOf("doctor.json", "the faults of the installation",
                                           asJson(doctorFindings(facts)))},
               now);
}

int SupportCommand::write(std::vector<SupportPart> parts, WallTime now) const {
  leaveOutLargeParts(parts);
  const std::string archive = gzipped(tarOf(entriesOf(parts), now));
  if (archive.empty()) return fail("there is not enough memory for the archive");
  if (const auto written = writeNewFile(file_, archive); !written) return fail(written.error());
  if (json_) {
    print(dumped(asJson(parts, file_)));
  } else {
    print(listOf(parts));
    print(fmt::format("{} has these, readable by this user alone.\n", plain(file_)));
  }
  return EXIT_SUCCESS;
}
