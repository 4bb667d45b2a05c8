#include "Tools/servicemanagerctl/PlistCommands.h"

#include <cstdlib>
#include <utility>

#include <fmt/format.h>

#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/ConfigurationFile.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/JsonValue.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/PlistPath.h"
#include "Tools/servicemanagerctl/SettingsReport.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Json = nlohmann::ordered_json;

std::unexpected<Refusal> refusePlist(const Error& error) {
  return std::unexpected(
      Refusal{error.code == ErrorCode::kDenied ? kExitNotPermitted : kExitFailed, describe(error)});
}

std::unexpected<Refusal> refuseMissing(const std::string& file, const std::string& path) {
  return std::unexpected(
      Refusal{kExitUnknownLabel, fmt::format("{} has no value \"{}\"", file, plain(path))});
}

// Text as it is, data in base 64, and any other value as JSON.
std::string asLine(const Value& value) {
  if (value.string()) return *value.string() + "\n";
  if (value.data()) return textFromData(*value.data()) + "\n";
  return value.array() || value.dictionary() ? dumped(jsonOf(value)) : shown(value) + "\n";
}

std::expected<Value, std::string> valueOfWord(const std::string& word,
                                              const std::optional<std::string>& type,
                                              const Value& current) {
  if (type != "json") return parseSetting(word, type, current);
  const auto value = valueOfJson(word, "the value");
  if (!value) return std::unexpected(value.error().context);
  return *value;
}

std::string asLines(const std::vector<PlistDifference>& differences) {
  std::string text;
  for (const PlistDifference& difference : differences) {
    const std::string path = difference.path.empty() ? "/" : plain(difference.path);
    if (!difference.one.isNil())
      text += fmt::format("- {}: {} {}\n", path, typeName(difference.one), shown(difference.one));
    if (!difference.other.isNil()) {
      text +=
          fmt::format("+ {}: {} {}\n", path, typeName(difference.other), shown(difference.other));
    }
  }
  return text;
}

Json differencesJson(const std::vector<PlistDifference>& differences) {
  Json rows = Json::array();
  for (const PlistDifference& difference : differences) {
    rows.push_back({{"path", difference.path},
                    {"one", jsonOf(difference.one)},
                    {"other", jsonOf(difference.other)}});
  }
  return {{"version", 1}, {"differences", std::move(rows)}};
}

}  // namespace

PlistCommands::PlistCommands(CLI::App& app)
    : plist_(app.add_subcommand("plist", "Look at property lists, and change them")),
      convert_(plist_->add_subcommand("convert", "Write one in another form")),
      get_(plist_->add_subcommand("get", "One value")),
      set_(plist_->add_subcommand("set", "Give a value another content, atomically")),
      lint_(plist_->add_subcommand("lint", "Whether files are property lists")),
      diff_(plist_->add_subcommand("diff", "In which values two of them differ")) {
  plist_->require_subcommand(1);
  for (CLI::App* command : {convert_, get_, set_})
    command->add_option(kFileOption, file_, "The file: XML, binary or JSON")->required();
  lint_->add_option(kFileOption, files_, "The files: XML, binary or JSON")->required();
  diff_->add_option(kFileOption, files_, "The two files: XML, binary or JSON")
      ->required()
      ->expected(2);
  convert_->add_option("--to", to_, "xml, binary or json")
      ->required()
      ->check(CLI::IsMember({"xml", "binary", "json"}));
  convert_
      ->add_option("--output", output_,
                   "The new file, which may be the old one; else standard "
                   "output")
      ->type_name("FILE");
  constexpr char kPathHelp[] = "The keys and numbers on the way, with slashes between them";
  get_->add_option("path", path_, kPathHelp);
  set_->add_option("path", path_, kPathHelp)->required();
  set_->add_option("value", value_, "The value; behind -- if it begins with a minus sign")
      ->required();
  set_->add_option("--type", type_,
                   "boolean, integer, real, number, string, data (in base 64) or json. Without it, "
                   "the type that the value has, else what it looks like")
      ->check(CLI::IsMember({"boolean", "integer", "real", "number", "string", "data", "json"}));
  for (CLI::App* command : {get_, set_, lint_, diff_})
    command->add_flag("--json", json_, "For programs");
}

int PlistCommands::run() const {
  const Answer<int> outcome = convert_->parsed() ? convert()
                              : get_->parsed()   ? get()
                              : set_->parsed()   ? set()
                              : lint_->parsed()  ? lint()
                                                 : diff();
  if (outcome) return *outcome;
  fail(outcome.error().text);
  return outcome.error().exitStatus;
}

Answer<int> PlistCommands::convert() const {
  const auto file = readConfigurationFile(file_);
  if (!file) return refusePlist(file.error());
  const auto content = contentOf(file->value, formNamed(to_));
  if (!content) return refusePlist(content.error());
  if (output_.empty()) {
    print(*content);
    return EXIT_SUCCESS;
  }
  if (const auto written = writeConfigurationFile(output_, *content); !written)
    return refusePlist(written.error());
  return EXIT_SUCCESS;
}

Answer<int> PlistCommands::get() const {
  const auto file = readConfigurationFile(file_);
  if (!file) return refusePlist(file.error());
  const auto value = valueAtPath(file->value, partsOfPath(path_));
  if (!value) return refuseMissing(file_, path_);
  print(json_ ? dumped(jsonOf(*value)) : asLine(*value));
  return EXIT_SUCCESS;
}

Answer<int> PlistCommands::set() const {
  const auto file = readConfigurationFile(file_);
  if (!file) return refusePlist(file.error());
  const std::vector<std::string> path = partsOfPath(path_);
  const auto value = valueOfWord(value_, type_, valueAtPath(file->value, path).value_or(Value()));
  if (!value) return std::unexpected(Refusal{kExitNotUnderstood, value.error()});
  const auto changed = withValueAtPath(file->value, path, *value);
  if (!changed) {
    return std::unexpected(
        Refusal{kExitUnknownLabel, fmt::format("{}: {}", file_, changed.error())});
  }
  const auto content = contentOf(*changed, file->form);
  if (!content) return refusePlist(content.error());
  if (const auto written = writeConfigurationFile(file_, *content); !written)
    return refusePlist(written.error());
  if (json_) print(dumpedAnswer({{"file", file_}, {"path", path_}, {"value", jsonOf(*value)}}));
  return EXIT_SUCCESS;
}

Answer<int> PlistCommands::lint() const {
  int status = EXIT_SUCCESS;
  Json rows = Json::array();
  for (const std::string& name : files_) {
    const auto file = readConfigurationFile(name);
    if (json_) {
      rows.push_back({{"file", name}, {"form", nullptr}, {"fault", nullptr}});
      if (file) rows.back()["form"] = nameOf(file->form);
      if (!file) rows.back()["fault"] = describe(file.error());
    } else if (file) {
      print(fmt::format("{}: {}, no fault\n", escaped(name), nameOf(file->form)));
    } else {
      fail(describe(file.error()));
    }
    if (!file) status = refusePlist(file.error()).error().exitStatus;
  }
  if (json_) print(dumpedAnswer({{"files", std::move(rows)}, {"valid", status == EXIT_SUCCESS}}));
  return status;
}

// As with other tools that compare files, a difference is no success.
Answer<int> PlistCommands::diff() const {
  const auto one = readConfigurationFile(files_[0]);
  if (!one) return refusePlist(one.error());
  const auto other = readConfigurationFile(files_[1]);
  if (!other) return refusePlist(other.error());
  const auto differences = differencesOf(one->value, other->value);
  print(json_ ? dumped(differencesJson(differences)) : asLines(differences));
  return differences.empty() ? EXIT_SUCCESS : kExitFailed;
}
