#include "Tools/lint/JobLint.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include <fmt/format.h>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Definitions/JobKeys.h"
#include "JobHost/Definitions/UnsupportedKeys.h"
#include "Platform/Processes/RestartPolicy.h"
#include "Platform/Texts/QuotedText.h"
#include "Tools/lint/KeyLint.h"

namespace lint {
namespace {

using jobhost::JobDefinition;
using platform::quotedInMessage;

// More than this is longer than a person expects to wait for a service.
constexpr std::int64_t kLongThrottle = 120;
constexpr std::int64_t kLongExitTimeOut = 120;

// Returns whether the job host accepts the key's value.
bool checkJobKey(const Node& node, JobDefinition& definition, Findings& findings) {
  if (const auto why = jobhost::whyWithoutEffect(node.name)) {
    findings.atKey(node, kKeyWithoutEffect,
                   fmt::format("\"{}\" has no effect: {}", node.name, *why));
    return true;
  }
  if (const auto fault = jobhost::checkUnsupportedKey(node.name, node.value)) {
    findings.atKey(node, kUnsupportedKey, fmt::format("\"{}\": {}", node.name, *fault));
    return false;
  }
  if (const auto fault = jobhost::takeJobKey(node.name, node.value, definition)) {
    findings.atValue(node, kRefusedValue, fmt::format("\"{}\": {}", node.name, *fault));
    return false;
  }
  return true;
}

void checkThrottle(const Node& node, Findings& findings) {
  const auto seconds = node.value.integer();
  if (seconds == 0) {
    findings.atValue(node, kSurprisingThrottle,
                     "without a throttle a service that crashes at its start is started again "
                     "every second");
  } else if (seconds > kLongThrottle) {
    findings.atValue(node, kSurprisingThrottle,
                     fmt::format("after a crash the next start may be {} s away", *seconds));
  }
}

void checkExitTimeOut(const Node& node, Findings& findings) {
  const auto seconds = node.value.integer();
  if (seconds == 0) {
    findings.atValue(node, kSurprisingExitTimeOut,
                     "a process that ignores SIGTERM is never killed, and whoever stops it waits");
  } else if (seconds > kLongExitTimeOut) {
    findings.atValue(node, kSurprisingExitTimeOut,
                     fmt::format("a stop may take {} s until SIGKILL", *seconds));
  }
}

void checkWhole(const Node& job, const Machine& machine, Findings& findings) {
  const auto definition = jobhost::parseJobDefinition(job.value);
  if (!definition) {
    findings.atKey(job, kUnusableJob, faultOfJob(definition.error()));
    return;
  }
  const platform::RestartRules rules{.keepAlive = definition->keepAlive,
                                     .runAtLoad = definition->runAtLoad,
                                     .throttleInterval = definition->throttleInterval};
  if (!platform::wantsProcessAtLoad(rules) && definition->machServices.empty()) {
    findings.atKey(
        job, kNothingStartsIt,
        fmt::format("nothing starts {}: it has neither \"RunAtLoad\", nor \"KeepAlive\", "
                    "nor \"MachServices\"",
                    quotedInMessage(definition->label)));
  }
  const bool hasProgramKey = job.value.dictionary()->contains("Program");
  const Node at = childOf(job, hasProgramKey ? "Program" : "ProgramArguments");
  if (!checkProgram(at, definition->program, false, machine, findings)) {
    findings.atValue(at, kUncheckedPrograms,
                     fmt::format("the folder of {} is not on this machine, so the program was not "
                                 "looked at",
                                 quotedInMessage(definition->program)));
  }
}

}  // namespace

std::vector<std::string_view> jobKeys() {
  std::vector<std::string_view> keys = jobhost::honouredJobKeys();
  const auto others = jobhost::unsupportedJobKeys();
  keys.insert(keys.end(), others.begin(), others.end());
  return keys;
}

bool checkJobKeys(const Node& job, const std::vector<std::string_view>& exceptions,
                  Findings& findings) {
  const std::vector<std::string_view> known = jobKeys();
  bool areAccepted = true;
  JobDefinition definition;
  for (const Node& node : childrenOf(job)) {
    checkIsKnown(node, known, findings);
    if (std::ranges::find(exceptions, node.name) != exceptions.end()) continue;
    if (!checkJobKey(node, definition, findings)) {
      areAccepted = false;
      continue;
    }
    if (node.name == "ThrottleInterval") checkThrottle(node, findings);
    if (node.name == "ExitTimeOut") checkExitTimeOut(node, findings);
  }
  return areAccepted;
}

void checkJob(const Node& job, const Machine& machine, Findings& findings) {
  if (checkJobKeys(job, {}, findings)) checkWhole(job, machine, findings);
}

std::string faultOfJob(const platform::Error& error) {
  const std::size_t colon = error.context.find(": key ");
  return colon == error.context.npos ? error.context : error.context.substr(colon + 2);
}

bool checkProgram(const Node& at, const std::string& path, bool mustBeSigned,
                  const Machine& machine, Findings& findings) {
  if (!machine.program) return true;
  const ProgramState state = machine.program(path, mustBeSigned);
  const std::string program = platform::quotedWhole(path);
  switch (state.kind) {
    case ProgramState::Kind::kSound:
      return true;
    case ProgramState::Kind::kNotHere:
      return false;
    case ProgramState::Kind::kMissing:
      findings.atValue(at, kMissingProgram, fmt::format("the program {} is missing", program));
      return true;
    case ProgramState::Kind::kNoProgram:
      findings.atValue(at, kNoProgram, fmt::format("{} can't be executed", program));
      return true;
    case ProgramState::Kind::kUnsigned:
      findings.atValue(at, kUnsignedProgram, fmt::format("the program {} is not signed", program));
      return true;
    case ProgramState::Kind::kRefused:
      findings.atValue(at, kRefusedProgram,
                       fmt::format("the program {} is refused: {}", program, state.why));
      return true;
    case ProgramState::Kind::kUnchecked:
      findings.atValue(at, kUncheckedPrograms,
                       fmt::format("the program {} can't be checked: {}", program, state.why));
      return true;
  }
  return true;
}

}  // namespace lint
