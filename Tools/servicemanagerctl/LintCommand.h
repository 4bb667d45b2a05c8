#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

// "servicemanagerctl lint FILE... | explain-code CODE". They need neither a daemon nor a platform
// that works, because they look for what is wrong with its files.
class LintCommand {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit LintCommand(CLI::App& app);
  LintCommand(const LintCommand&) = delete;
  LintCommand& operator=(const LintCommand&) = delete;

  bool parsed() const { return lint_->parsed() || explain_->parsed(); }

  // Runs the command and returns the exit status. `root` is the platform root whose signers count;
  // if it is empty, the one that this program lies in.
  int run(const std::string& root) const;

 private:
  int check(const std::string& root) const;
  int explain() const;

  CLI::App* lint_;
  CLI::App* explain_;
  std::vector<std::string> files_;
  std::string format_ = "text";
  std::string code_;
  bool json_ = false;
  bool isStrict_ = false;
  bool areProgramsIgnored_ = false;
};
