#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// "servicemanagerctl plist convert | get | set | lint | diff": property lists in XML, binary and
// JSON. They need neither a daemon nor a platform.
class PlistCommands {
 public:
  // Adds the commands to `app`, which outlives this.
  explicit PlistCommands(CLI::App& app);
  PlistCommands(const PlistCommands&) = delete;
  PlistCommands& operator=(const PlistCommands&) = delete;

  bool parsed() const { return plist_->parsed(); }

  // Runs the command and returns the exit status.
  int run() const;

 private:
  Answer<int> convert() const;
  Answer<int> get() const;
  Answer<int> set() const;
  Answer<int> lint() const;
  Answer<int> diff() const;

  CLI::App* plist_;
  CLI::App* convert_;
  CLI::App* get_;
  CLI::App* set_;
  CLI::App* lint_;
  CLI::App* diff_;
  std::string file_;
  std::vector<std::string> files_;
  std::string to_;
  std::string output_;
  std::string path_;
  std::string value_;
  std::optional<std::string> type_;
  bool json_ = false;
};
