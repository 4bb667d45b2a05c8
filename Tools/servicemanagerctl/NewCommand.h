#pragma once

#include <string>

#include <CLI/CLI.hpp>

// "servicemanagerctl new DIR --product NAME": a folder with the sources of a product that runs. It
// needs neither a daemon nor a platform, only the templates that are installed with this program.
class NewCommand {
 public:
  // Adds the command to `app`, which outlives this.
  explicit NewCommand(CLI::App& app);
  NewCommand(const NewCommand&) = delete;
  NewCommand& operator=(const NewCommand&) = delete;

  bool parsed() const { return new_->parsed(); }

  // Runs the command and returns the exit status.
  int run() const;

 private:
  CLI::App* new_;
  std::string folder_;
  std::string product_;
};
