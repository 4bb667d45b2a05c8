#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// Errors of the command line, for all commands alike.

// The name of the option that takes a file's path.
inline constexpr char kFileOption[] = "file";

// "--root", for every command, before and behind its name.
void addRootOption(CLI::App& app, std::string& root);

// Rejects a word that is neither UTF-8 nor a file's path, and an empty --root. `app` has parsed the
// command line.
Answer<void> checkArguments(const CLI::App& app);

// The error text for a command line that `app` could not parse; `arguments` are those of main().
std::string parseErrorText(const CLI::App& app, const CLI::ParseError& error,
                           const std::vector<std::string>& arguments);
