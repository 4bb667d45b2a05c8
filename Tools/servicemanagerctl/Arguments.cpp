#include "Tools/servicemanagerctl/Arguments.h"

#include <utility>

#include <fmt/format.h>

#include "Platform/Texts/Utf8.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

constexpr char kRoot[] = "--root";

Answer<void> refuseWord(std::string text) {
  return std::unexpected(Refusal{kExitNotUnderstood, std::move(text)});
}

// A file name may hold any bytes; all other arguments travel as text.
bool isPath(const CLI::Option& option) {
  return option.check_lname("root") || option.get_name(true) == kFileOption;
}

// The last command on the command line that the parser knows.
const CLI::App& innermost(const CLI::App& app) {
  const auto named = app.get_subcommands();
  return named.empty() ? app : innermost(*named.back());
}

// "did you mean list? "; empty if no command is similar.
std::string commandMeant(const CLI::App& command, const std::string& word) {
  std::vector<std::string> known;
  for (const CLI::App* nested : command.get_subcommands([](const CLI::App*) { return true; }))
    known.push_back(nested->get_name());
  const auto nearest = nearestLabels(word, known);
  return nearest.empty() ? "" : fmt::format("did you mean {}? ", nearest.front());
}

}  // namespace

void addRootOption(CLI::App& app, std::string& root) {
  app.add_option(kRoot, root, "Another platform root than the one this program lies in")
      ->type_name("DIR");
  for (CLI::App* nested : app.get_subcommands([](CLI::App*) { return true; }))
    addRootOption(*nested, root);
}

Answer<void> checkArguments(const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& word : option->results()) {
      if (!isPath(*option) && platform::findIllFormedUtf8(word))
        return refuseWord(fmt::format("argument \"{}\" is not UTF-8", abridged(word)));
      if (word.empty() && option->check_lname("root"))
        return refuseWord("--root is empty; it is the folder that another platform lies in");
    }
  }
  for (const CLI::App* nested : app.get_subcommands()) {
    if (auto checked = checkArguments(*nested); !checked) return checked;
  }
  return {};
}

std::string parseErrorText(const CLI::App& app, const CLI::ParseError& error,
                           const std::vector<std::string>& arguments) {
  const CLI::App& command = innermost(app);
  const auto strange = command.remaining();
  // The parser reports a missing command, but the unknown word stands in its place.
  if (command.get_require_subcommand_min() > 0 && !strange.empty()) {
    const std::string& word = strange.front();
    const std::string before = &command == &app ? "" : command.get_name() + " ";
    return fmt::format(
        "there is no {} \"{}{}\"; {}\"servicemanagerctl {}--help\" tells which there are",
        word.starts_with('-') ? "option" : "command", before, abridged(word),
        commandMeant(command, word), before);
  }
  std::string text = error.what();
  for (const std::string& word : arguments) {
    const std::string cut = abridged(word);
    if (cut == plain(word) || word.empty()) continue;
    for (std::size_t at = 0; (at = text.find(word, at)) != text.npos; at += cut.size())
      text.replace(at, word.size(), cut);
  }
  return text;
}
