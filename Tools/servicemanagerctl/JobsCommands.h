#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/RunLoops/RunLoop.h"

// "servicemanagerctl jobs list | show LABEL | submit FILE | remove LABEL".
class JobsCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit JobsCommands(CLI::App& app);
  JobsCommands(const JobsCommands&) = delete;
  JobsCommands& operator=(const JobsCommands&) = delete;

  bool parsed() const { return jobs_->parsed(); }

  // Runs the command and returns the exit status. Advice names `hostProgram`, the path of the job
  // host's program.
  int run(platform::EmbeddedJobs& jobs, platform::RunLoop& loop,
          const std::string& hostProgram) const;

 private:
  struct Connected;

  int list(const Connected& to) const;
  int show(const Connected& to) const;
  int submit(const Connected& to) const;
  int remove(const Connected& to) const;

  CLI::App* jobs_;
  CLI::App* list_;
  CLI::App* show_;
  CLI::App* submit_;
  CLI::App* remove_;
  bool json_ = false;
  std::string label_;
  std::string file_;
};
