#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "Platform/RunLoops/RunLoop.h"

// "servicemanagerctl top": a screen of all services that updates itself. Each question and each
// action is a command of this tool in a process of its own, so nothing that hangs holds up the
// screen.
class TopCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit TopCommand(CLI::App& app);
  TopCommand(const TopCommand&) = delete;
  TopCommand& operator=(const TopCommand&) = delete;

  bool parsed() const { return top_->parsed(); }

  // Returns the exit status. Without a terminal it becomes "list". `root` is the one that the user
  // has named, or empty.
  int run(platform::RunLoop& loop, const std::string& root) const;

 private:
  CLI::App* top_;
};
