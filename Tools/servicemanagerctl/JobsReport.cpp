#include "Tools/servicemanagerctl/JobsReport.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iterator>

#include <fmt/format.h>
#include <sys/wait.h>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Json = nlohmann::ordered_json;
using Kind = JobState::Ending::Kind;

std::string signalName(int number) {
  const char* abbreviation = ::sigabbrev_np(number);
  return abbreviation ? fmt::format("SIG{}", abbreviation) : fmt::format("signal {}", number);
}

JobState::Ending endingOf(int status) {
  if (WIFEXITED(status)) return {.kind = Kind::kExited, .number = WEXITSTATUS(status)};
  if (!WIFSIGNALED(status)) return {.kind = Kind::kUnknown};
  return {.kind = Kind::kSignalled,
          .number = WTERMSIG(status),
          .dumped = static_cast<bool>(WCOREDUMP(status))};
}

JobState::Ending endingOf(const JobHistory::End& end) {
  if (!end.waitStatus) return {.kind = Kind::kUnknown};
  return endingOf(*end.waitStatus);
}

JobState::Ending endingIn(const Value& dictionary) {
  if (!dictionary[kJobLastStatusUnknownKey].isNil()) return {.kind = Kind::kUnknown};
  const auto reported = dictionary[kJobLastStatusKey].integer();
  return reported ? endingOf(static_cast<int>(*reported)) : JobState::Ending();
}

std::string processText(const JobState& job) {
  return job.process ? fmt::format("{}", *job.process) : "-";
}

bool isState(std::string_view key) {
  return key == kJobProcessKey || key == kJobLastStatusKey || key == kJobLastStatusUnknownKey ||
         key == kJobProgramChangedKey || key == kJobHistoryKey || key == kJobTreeKey;
}

Json jsonOfEnding(const JobState::Ending& ending) {
  switch (ending.kind) {
    case Kind::kNone:
      return nullptr;
    case Kind::kUnknown:
      return {{"kind", "unknown"}};
    case Kind::kExited:
      return {{"kind", "exited"}, {"code", ending.number}};
    case Kind::kSignalled:
      return {{"kind", "signalled"},
              {"signal", ending.number},
              {"name", signalName(ending.number)},
              {"dumpedCore", ending.dumped}};
  }
  return nullptr;
}

std::string countText(const JobState& job, std::int64_t JobHistory::* count) {
  return job.history ? fmt::format("{}", (*job.history).*count) : "-";
}

std::string timeOfHistory(WallTime time) { return jsonOf(Value(dateAt(time))).get<std::string>(); }

double secondsOfRun(Duration duration) { return std::chrono::duration<double>(duration).count(); }

Json jsonOfHistory(const JobHistory& history) {
  return {{"since", jsonOf(Value(dateAt(history.since)))},
          {"starts", history.starts},
          {"ends", history.ends},
          {"crashes", history.crashes}};
}

Json jsonOfEnds(const JobHistory& history) {
  Json ends = Json::array();
  for (const JobHistory::End& end : history.lastEnds) {
    ends.push_back({{"time", jsonOf(Value(dateAt(end.at)))},
                    {"ranSeconds", secondsOfRun(end.ran)},
                    {"exit", jsonOfEnding(endingOf(end))}});
  }
  return ends;
}

}  // namespace

std::string asText(const JobHistory& history) {
  std::string text =
      fmt::format("Since {}: {} starts, {} ends, {} crashes.\n", timeOfHistory(history.since),
                  history.starts, history.ends, history.crashes);
  for (const JobHistory::End& end : history.lastEnds) {
    text += fmt::format("{}  after {:.1f} s: {}\n", timeOfHistory(end.at), secondsOfRun(end.ran),
                        inWords(endingOf(end)));
  }
  return text;
}

Json asJson(const JobHistory& history) {
  Json json = jsonOfHistory(history);
  if (!history.lastEnds.empty()) json["lastEnds"] = jsonOfEnds(history);
  return json;
}

std::string memoryInWords(const std::optional<JobTree>& tree) {
  if (!tree || !tree->memoryBytes) return "-";
  const double kibibytes = static_cast<double>(*tree->memoryBytes) / 1024;
  if (kibibytes < 1024) return fmt::format("{:.0f} KiB", kibibytes);
  return fmt::format("{:.1f} MiB", kibibytes / 1024);
}

std::string cpuTimeInWords(const std::optional<JobTree>& tree) {
  if (!tree) return "-";
  const double seconds = secondsOfRun(tree->cpuTime);
  if (seconds < 60) return fmt::format("{:.2f} s", seconds);
  const auto whole = static_cast<std::int64_t>(seconds);
  return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string asText(const JobTree& tree) {
  std::string text = fmt::format("{} process{}, CPU time {}", tree.processes,
                                 tree.processes == 1 ? "" : "es", cpuTimeInWords(tree));
  if (tree.memoryBytes) text += ", memory " + memoryInWords(tree);
  return text + ".\n";
}

Json asJson(const JobTree& tree) {
  Json json{{"processes", tree.processes}, {"cpuSeconds", secondsOfRun(tree.cpuTime)}};
  json["memoryBytes"] = tree.memoryBytes ? Json(*tree.memoryBytes) : Json();
  return json;
}

JobState jobState(std::string label, const Value& dictionary) {
  JobState job{.label = std::move(label),
               .process = {},
               .lastExit = endingIn(dictionary),
               .history = jobHistoryIn(dictionary),
               .tree = jobTreeIn(dictionary)};
  const auto process = dictionary[kJobProcessKey].integer();
  if (process && *process > 0) job.process = static_cast<ProcessId>(*process);
  return job;
}

std::vector<JobState> jobStates(const Dictionary& byLabel) {
  std::vector<JobState> jobs;
  for (const auto& [label, dictionary] : byLabel) jobs.push_back(jobState(label, dictionary));
  std::ranges::sort(jobs, {}, &JobState::label);
  return jobs;
}

bool isFailure(const JobState::Ending& ending) {
  return ending.kind == Kind::kSignalled || (ending.kind == Kind::kExited && ending.number != 0);
}

std::string inWords(const JobState::Ending& ending) {
  switch (ending.kind) {
    case Kind::kNone:
      return "-";
    case Kind::kUnknown:
      return "unknown";
    case Kind::kExited:
      return ending.number == 0 ? "succeeded" : fmt::format("exited with {}", ending.number);
    case Kind::kSignalled:
      return fmt::format("killed by {}{}", signalName(ending.number),
                         ending.dumped ? ", core dumped" : "");
  }
  return "";
}

std::string asTable(const std::vector<JobState>& jobs, Reader reader) {
  if (jobs.empty()) return "No jobs.\n";
  constexpr std::string_view kLabelHeading = "LABEL";
  std::size_t width = kLabelHeading.size();
  for (const JobState& job : jobs) width = std::max(width, plain(job.label).size());
  std::string text;
  const auto out = std::back_inserter(text);
  const std::string heading = fmt::format("{:<{}}  {:>7}  {:>6}  {:>7}  {}", kLabelHeading, width,
                                          "PID", "STARTS", "CRASHES", "LAST EXIT");
  fmt::format_to(out, "{}\n", coloured(heading, Colour::kBold, reader));
  for (const JobState& job : jobs) {
    const std::string process = fmt::format("{:>7}", processText(job));
    const std::string ending = inWords(job.lastExit);
    fmt::format_to(out, "{:<{}}  {}  {:>6}  {:>7}  {}\n", plain(job.label), width,
                   job.process ? coloured(process, Colour::kGreen, reader) : process,
                   countText(job, &JobHistory::starts), countText(job, &JobHistory::crashes),
                   isFailure(job.lastExit) ? coloured(ending, Colour::kRed, reader) : ending);
  }
  return text;
}

Json asJson(const JobState& job) {
  Json json{{"label", job.label}};
  json["pid"] = job.process ? Json(*job.process) : Json();
  json["lastExit"] = jsonOfEnding(job.lastExit);
  json["history"] = job.history ? jsonOfHistory(*job.history) : Json();
  return json;
}

std::string asText(const JobState& job, const Value& dictionary, Reader reader) {
  std::string text = asTable({job}, reader);
  if (job.tree) text += "\n" + asText(*job.tree);
  if (job.history) text += "\n" + asText(*job.history);
  text += '\n';
  const auto out = std::back_inserter(text);
  std::size_t width = 0;
  for (const auto& [key, value] : *dictionary.dictionary())
    width = std::max(width, plain(key).size());
  for (const auto& [key, value] : *dictionary.dictionary()) {
    // That the job waits for a verification is told nowhere else.
    if (isState(key) && key != kJobProgramChangedKey) continue;
    // The submitter chooses the keys: no control character may reach the terminal.
    fmt::format_to(out, "{:<{}}  {}\n", plain(key), width, shown(value));
  }
  return text;
}

Json asJson(const JobState& job, const Value& dictionary) {
  Json json = asJson(job);
  if (job.history) json["history"]["lastEnds"] = jsonOfEnds(*job.history);
  if (job.tree) json["tree"] = asJson(*job.tree);
  if (dictionary[kJobProgramChangedKey] == Value(true)) json["programHasChanged"] = true;
  json["dictionary"] = Json::object();
  for (const auto& [key, value] : *dictionary.dictionary()) {
    if (!isState(key)) json["dictionary"][key] = jsonOf(value);
  }
  return json;
}

std::string asSentence(const JobState& job) {
  if (job.process) return fmt::format("{} runs as process {}.\n", plain(job.label), *job.process);
  return fmt::format("{} is loaded and has no process now; its last exit: {}.\n", plain(job.label),
                     inWords(job.lastExit));
}

std::string asAdvice(const NSError& error, const std::string& hostProgram, platform::UserId user) {
  const std::string& text = error.localizedDescription;
  switch (static_cast<LaunchdError>(error.code)) {
    case LaunchdError::kUnavailable:
      return fmt::format("{}; is it running? Start it with \"{}\"", text, hostProgram);
    case LaunchdError::kNotAuthorized:
      if (user == 0)
        return fmt::format("{}; see who started this job host: it may be another program", text);
      return fmt::format("{}; ask as root, or as the user whom the job host runs under", text);
    case LaunchdError::kNoSuchJob:
      return fmt::format("{}; \"servicemanagerctl jobs list\" tells which there are", text);
    case LaunchdError::kInternal:
    case LaunchdError::kInvalidJob:
    case LaunchdError::kProgramChanged:
    case LaunchdError::kHostIsFull:
      break;
  }
  return text;
}

int exitStatusOf(const NSError& error) {
  switch (static_cast<LaunchdError>(error.code)) {
    case LaunchdError::kNoSuchJob:
      return kExitUnknownLabel;
    case LaunchdError::kNotAuthorized:
      return kExitNotPermitted;
    case LaunchdError::kUnavailable:
      return kExitNobodyThere;
    case LaunchdError::kInternal:
    case LaunchdError::kInvalidJob:
    case LaunchdError::kProgramChanged:
    case LaunchdError::kHostIsFull:
      break;
  }
  return kExitFailed;
}
