#include <algorithm>
#include <cstdint>
#include <string>

#include <fmt/format.h>

#include "Tools/servicemanagerctl/DoctorParts.h"

using Severity = Finding::Severity;
using platform::pathBelowRoot;

namespace {

// How to name a server, and what to do about it.
struct ServerWords {
  std::string part;  // of the code
  std::string name;
  std::string ifAbsent;
  std::string ifHung;
  std::string ifOutdated;
};

ServerWords wordsOfHost(const DoctorFacts& facts) {
  if (facts.configuration.root == "/")
    return {"host", "The job host", "Start it: \"systemctl start vantor-jobhost\".",
            "Restart it: \"systemctl kill -s KILL vantor-jobhost\"; the services go on.",
            "Replace it: \"systemctl reload vantor-jobhost\"; the services go on."};
  const std::string program = pathBelowRoot(facts.configuration.root, "usr/bin/jobhost");
  return {"host", "The job host", fmt::format("Start it: {}.", program),
          "Find out what stops it, or kill and start it again; the services go on.",
          "Send SIGHUP to it; the services go on."};
}

ServerWords wordsOfDaemon() {
  return {"daemon", "The service manager",
          "\"servicemanagerctl jobs show com.vantor.servicemanager\" shows whether it runs, and "
          "\"servicemanagerctl list\" why one that runs is idle.",
          "Find out what stops it, or kill it; the job host starts it again, and the services go "
          "on.",
          "Kill it; the job host starts the installed one, and the services go on."};
}

ServerWords wordsOfBus(const DoctorFacts& facts) {
  if (!facts.configuration.notificationBus || *facts.configuration.notificationBus == "system")
    return {"bus", "The notification bus, the one of the system,",
            "Start the message bus of the system (dbus.service).",
            "Look at the message bus of the system (dbus.service).", ""};
  return {"bus", "The notification bus",
          "\"servicemanagerctl jobs show com.vantor.notificationbus\" shows whether it runs.",
          "Find out what stops it, or kill it; the job host starts it again.",
          "Kill it; the job host starts the installed one."};
}

void addVersion(Findings& findings, const ServerWords& words, const RunningProgram& program) {
  if (!program.isInstalledFile)
    return addUnknown(findings, words.part + "-program", program.isInstalledFile.error(),
                      fmt::format("the program of process {}", program.process));
  if (!*program.isInstalledFile)
    findings.push_back({words.part + "-outdated", Severity::kWarning,
                        fmt::format("{} runs as process {} with another program than the installed "
                                    "{}.",
                                    words.name, program.process, program.installed),
                        words.ifOutdated});
}

void judgeServer(Findings& findings, const ServerFact& server, const ServerWords& words) {
  using State = ServerFact::State;
  const std::string why = server.text.empty() ? std::string() : ": " + server.text;
  switch (server.state) {
    case State::kAnswers:
      findings.push_back({words.part, Severity::kOk, words.name + " answers."});
      if (server.program) addVersion(findings, words, *server.program);
      return;
    case State::kAbsent:
      return findings.push_back({words.part + "-absent", Severity::kError,
                                 fmt::format("{} does not serve{}.", words.name, why),
                                 words.ifAbsent});
    case State::kHangs:
      return findings.push_back({words.part + "-hung", Severity::kError,
                                 fmt::format("{} is there but does not answer{}.", words.name, why),
                                 words.ifHung});
    case State::kNotPermitted:
      return findings.push_back(
          {words.part + "-not-permitted", Severity::kNote,
           fmt::format("This user may not ask whether it answers: {}{}.", words.name, why),
           "Run \"servicemanagerctl doctor\" as root."});
    case State::kNotTrusted:
      return findings.push_back(
          {words.part + "-not-trusted", Severity::kError,
           fmt::format("Another user's program has the place of it: {}{}.", words.name, why),
           "Find out who started that program."});
    case State::kFailed:
      return findings.push_back({words.part + "-unknown", Severity::kWarning,
                                 fmt::format("{} can't be asked{}.", words.name, why), ""});
  }
}

std::string modeText(std::uint32_t mode) { return fmt::format("{:04o}", mode); }

// A socket that others can open is an open door; one that its own group can't open is only shut.
void judgeSocketFile(Findings& findings, const SocketFile& file) {
  const std::uint32_t excess = file.mode & ~file.expectedMode;
  const std::string expected = modeText(file.expectedMode);
  const std::string advice =
      "Restart the job host, which makes it anew, and find out who changed it.";
  if (std::ranges::find(file.expectedOwners, file.owner) == file.expectedOwners.end())
    findings.push_back({"socket-owner", Severity::kError,
                        fmt::format("{} belongs to user {}.", file.path, file.owner), advice});
  if (excess != 0)
    findings.push_back({file.isFolder ? "folder-open" : "socket-open", Severity::kError,
                        fmt::format("{} has the mode {}, which gives others more rights than {}.",
                                    file.path, modeText(file.mode), expected),
                        advice});
  if (!file.isFolder && (file.expectedMode & ~file.mode) != 0)
    findings.push_back({"socket-closed", Severity::kWarning,
                        fmt::format("{} has the mode {} instead of {}, so clients may be refused.",
                                    file.path, modeText(file.mode), expected),
                        advice});
  const bool doesGroupCount = !file.isFolder && (file.mode & 0070) != 0 && file.expectedGroup;
  if (doesGroupCount && file.group != *file.expectedGroup)
    findings.push_back({"socket-group", Severity::kError,
                        fmt::format("{} belongs to group {} instead of {}.", file.path, file.group,
                                    *file.expectedGroup),
                        advice});
}

}  // namespace

void judgeServers(Findings& findings, const DoctorFacts& facts) {
  if (facts.systemd)
    judgeServer(findings, *facts.systemd,
                {"systemd", "systemd, which starts the jobs",
                 "Boot with systemd, or choose the embedded backend (\"JobBackend\").",
                 "Look at systemd and the message bus of the system; running services go on.", ""});
  else
    findings.push_back({"backend", Severity::kOk, "The job host itself starts the jobs."});
  judgeServer(findings, facts.host, wordsOfHost(facts));
  judgeServer(findings, facts.bus, wordsOfBus(facts));
  judgeServer(findings, facts.daemon, wordsOfDaemon());
}

void judgeGroup(Findings& findings, const DoctorFacts& facts) {
  const auto& name = facts.configuration.group;
  if (!name)
    return findings.push_back({"group-none", Severity::kNote,
                               "Only root and the user of the job host may operate the product.",
                               "Set \"Group\" in platform.plist to let others do so."});
  if (!facts.group) return addUnknown(findings, "group", facts.group.error(), "the group " + *name);
  if (!facts.group->exists)
    return findings.push_back(
        {"group-missing", Severity::kError,
         fmt::format("There is no group \"{}\", so the job host does not start.", *name),
         fmt::format("Make it: \"groupadd --system {}\".", *name)});
  if (!facts.group->isMember && facts.user != 0)
    return findings.push_back(
        {"group-not-member", Severity::kNote,
         fmt::format("This user is no member of the group \"{}\", which operates the product.",
                     *name),
         "Run \"servicemanagerctl doctor\" as root, or as a member."});
  findings.push_back({"group", Severity::kOk,
                      fmt::format("The members of the group \"{}\" operate the product.", *name)});
}

void judgeSockets(Findings& findings, const DoctorFacts& facts) {
  if (!facts.sockets) return addUnknown(findings, "sockets", facts.sockets.error(), "the sockets");
  const std::size_t before = findings.size();
  for (const SocketFile& file : *facts.sockets) judgeSocketFile(findings, file);
  if (findings.size() > before) return;
  findings.push_back(
      {"sockets", Severity::kOk,
       fmt::format("The {} sockets and their folders have the right owners and modes.",
                   std::ranges::count(*facts.sockets, false, &SocketFile::isFolder))});
}

void judgeLimits(Findings& findings, const DoctorFacts& facts) {
  // Fewer would be too few for a product with some hundred services and their clients.
  constexpr std::uint64_t kFewDescriptors = 4096;
  if (!facts.limits)
    return addUnknown(findings, "limits", facts.limits.error(), "the limits of the job host");
  const LimitsFact& limits = *facts.limits;
  if (limits.descriptors < kFewDescriptors)
    findings.push_back(
        {"descriptors-few", Severity::kWarning,
         fmt::format("The job host may open only {} files, and each job takes one or "
                     "more.",
                     limits.descriptors),
         "Raise its hard limit of open files (LimitNOFILE= in a unit of systemd)."});
  else
    findings.push_back({"descriptors", Severity::kOk,
                        fmt::format("The job host may open {} files.", limits.descriptors)});
  if (!limits.groups && !facts.systemd)
    findings.push_back(
        {"groups-none", Severity::kWarning,
         fmt::format("The job host makes no control groups for jobs: {}.", limits.groups.error()),
         "Start it with control groups of version 2 that it may write to (Delegate= in "
         "a unit of systemd)."});
  else
    findings.push_back({"groups", Severity::kOk, "Each job has a control group of its own."});
}
