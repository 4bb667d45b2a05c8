#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/JobTree.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// The job host's jobs, for people and for programs.

struct JobState {
  // How a job's last process ended.
  struct Ending {
    enum class Kind { kNone, kUnknown, kExited, kSignalled };
    Kind kind = Kind::kNone;
    int number = 0;       // the exit code, or the signal's number
    bool dumped = false;  // and left a core file

    bool operator==(const Ending&) const = default;
  };

  std::string label;
  std::optional<platform::ProcessId> process;
  Ending lastExit;
  std::optional<platform::JobHistory> history;  // absent if the host is an older one
  std::optional<platform::JobTree> tree = {};   // absent if the host has no control groups

  bool operator==(const JobState&) const = default;
};

// Reads a job's dictionary, or the host's facts about its process.
JobState jobState(std::string label, const platform::Value& dictionary);

// The counts since a time, and the last ends, as lines and for programs.
std::string asText(const platform::JobHistory& history);
nlohmann::ordered_json asJson(const platform::JobHistory& history);

// How many processes there are and what they use, as words and for programs.
std::string asText(const platform::JobTree& tree);
nlohmann::ordered_json asJson(const platform::JobTree& tree);

// "-", "512 KiB", "3.5 MiB".
std::string memoryInWords(const std::optional<platform::JobTree>& tree);
// "-", "0.12 s", "3:05:07".
std::string cpuTimeInWords(const std::optional<platform::JobTree>& tree);

// Sorted by label.
std::vector<JobState> jobStates(const platform::Dictionary& byLabel);

// Whether the process failed. An unknown end is no failure.
bool isFailure(const JobState::Ending& ending);

// "-", "unknown", "succeeded", "exited with 3", "killed by SIGKILL".
std::string inWords(const JobState::Ending& ending);

// Every line has a line end. Without jobs the table is a sentence.
std::string asTable(const std::vector<JobState>& jobs, Reader reader);
nlohmann::ordered_json asJson(const JobState& job);

// One job in full: its state, how its last processes ended, and the dictionary that was submitted.
std::string asText(const JobState& job, const platform::Value& dictionary, Reader reader);
nlohmann::ordered_json asJson(const JobState& job, const platform::Value& dictionary);

// The state of a job that was just submitted, as a sentence.
std::string asSentence(const JobState& job);

// The error with advice. `hostProgram` is the path of the job host's program.
std::string asAdvice(const platform::NSError& error, const std::string& hostProgram,
                     platform::UserId user);

// The exit status for an error: 1 failed, 3 no such job, 4 not permitted, 5 no job host.
int exitStatusOf(const platform::NSError& error);
