#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "Tools/servicemanagerctl/DaemonClient.h"

// What is wrong with the words of the command line, for every command alike.

// The name of the option that takes a file's path.
inline constexpr char kFileOption[] = "file";

// "--root", for every command, before and behind its name.
void addRootOption(CLI::App& app, std::string& root);

// Of a command line that `app` has parsed: a word that is not UTF-8 where it is no path of a file,
// or an empty --root.
Answer<void> checkArguments(const CLI::App& app);

// What to say where `app` could not parse the command line; `arguments` are those of main().
std::string whyNotUnderstood(const CLI::App& app, const CLI::ParseError& error,
                             const std::vector<std::string>& arguments);
