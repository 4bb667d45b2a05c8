#include "JobHost/Processes/JobEnvironment.h"

#include <string_view>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace jobhost {
namespace {

constexpr std::size_t kPidDigitCount = 10;
constexpr char kDefaultPath[] = "/usr/bin:/bin:/usr/sbin:/sbin";

char* placeOfNumber(std::string& variable) {
  return variable.data() + variable.size() - kPidDigitCount;
}

}  // namespace

JobEnvironment::JobEnvironment(const JobDefinition& job, const JobAccount& account, bool listens,
                               const JobMark& mark) {
  for (const auto& [name, text] : job.environment) {
    if (listens && name.starts_with("LISTEN_")) continue;  // It would name other descriptors.
    if (name == kJobMarkVariable) continue;
    variables_.push_back(name + "=" + text);
  }
  const auto addMissing = [&](std::string_view name, std::string_view text) {
    for (const auto& [given, ignored] : job.environment) {
      if (given == name) return;
    }
    variables_.push_back(fmt::format("{}={}", name, text));
  };
  addMissing("PATH", kDefaultPath);
  addMissing("HOME", account.home);
  addMissing("USER", account.name);
  addMissing("LOGNAME", account.name);
  addMissing("SHELL", account.shell);
  if (listens) {
    variables_.push_back(fmt::format("LISTEN_FDS={}", job.machServices.size()));
    variables_.push_back(fmt::format("LISTEN_FDNAMES={}", fmt::join(job.machServices, ":")));
    variables_.push_back("LISTEN_PID=0000000000");
  }
  // The last one: programs that change their title overwrite the first ones.
  variables_.push_back(jobMarkVariable(mark));
  for (std::string& variable : variables_) pointers_.push_back(variable.data());
  pointers_.push_back(nullptr);
  if (listens) listenPid_ = placeOfNumber(variables_[variables_.size() - 2]);
  markPid_ = placeOfNumber(variables_.back());
}

}  // namespace jobhost
