#include "Tools/servicemanagerctl/LintCommand.h"

#include <algorithm>
#include <cstdlib>

#include <fmt/format.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Tools/lint/FileLint.h"
#include "Tools/lint/FindingCodes.h"
#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/LintMachine.h"
#include "Tools/servicemanagerctl/LintReport.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using Json = nlohmann::ordered_json;

Json jsonOfCode(const lint::FindingCode& code) {
  return {{"version", 1},
          {"code", code.code},
          {"severity", lint::nameOf(code.severity)},
          {"title", code.title},
          {"explanation", code.explanation}};
}

std::string pageOf(const lint::FindingCode& code) {
  constexpr std::size_t kWidth = 78;
  std::string page =
      fmt::format("{} ({}): {}\n\n", code.code, lint::nameOf(code.severity), code.title);
  std::size_t column = 0;
  for (std::string_view rest = code.explanation; !rest.empty();) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(rest.size(), word.size() + 1));
    const bool isNewLine = column > 0 && column + 1 + word.size() > kWidth;
    if (column > 0) page += isNewLine ? '\n' : ' ';
    column = column == 0 || isNewLine ? word.size() : column + 1 + word.size();
    page += word;
  }
  return page + "\n";
}

}  // namespace

LintCommand::LintCommand(CLI::App& app)
    : lint_(app.add_subcommand("lint",
                               "Check catalogues, jobs and platform.plist before they are "
                               "installed")),
      explain_(app.add_subcommand("explain-code", "What a code of lint means, and what to do")) {
  lint_->add_option(kFileOption, files_, "The files; what each is follows from its keys")
      ->required();
  lint_->add_flag("--strict", isStrict_, "Warnings fail, too");
  lint_->add_flag("--no-programs", areProgramsIgnored_,
                  "Look at nothing but the files: they are for another machine");
  lint_->add_option("--format", format_, "text, json or sarif")
      ->check(CLI::IsMember({"text", "json", "sarif"}));
  lint_->add_flag("--json", json_, "For programs");
  explain_->add_option("code", code_, "As in \"error C009: ...\"")->required();
  explain_->add_flag("--json", json_, "For programs");
}

int LintCommand::run(const std::string& root) const {
  return lint_->parsed() ? check(root) : explain();
}

int LintCommand::check(const std::string& root) const {
  const lint::Machine machine = areProgramsIgnored_ ? lint::Machine() : makeLintMachine(root);
  std::vector<lint::FileReport> reports;
  bool isAnyForbidden = false;
  for (const std::string& file : files_) {
    const auto opened = platform::openRegularFile(file, platform::FinalLink::kFollow);
    // One byte above the limit makes the reader reject it.
    const auto content =
        opened ? platform::readAtMost(opened->get(), platform::kMaxPropertyListBytes + 1, file)
               : platform::Result<std::string>(std::unexpected(opened.error()));
    isAnyForbidden |= !content && content.error().code == platform::ErrorCode::kDenied;
    reports.push_back(lint::checkFile(file, content, machine));
  }
  if (format_ == "sarif") {
    print(dumped(lint::asSarif(reports)));
  } else if (json_ || format_ == "json") {
    print(dumped(lint::asJson(reports)));
  } else {
    print(lint::asText(reports));
    remark(lint::summary(reports));
  }
  if (isAnyForbidden) return kExitNotPermitted;
  return lint::pass(reports, isStrict_) ? EXIT_SUCCESS : kExitFailed;
}

int LintCommand::explain() const {
  const lint::FindingCode* code = lint::findingCode(code_);
  if (!code) {
    fail(
        fmt::format("there is no code \"{}\"; \"servicemanagerctl lint\" writes the code of each "
                    "finding",
                    abridged(code_)));
    return kExitUnknownLabel;
  }
  print(json_ ? dumped(jsonOfCode(*code)) : pageOf(*code));
  return EXIT_SUCCESS;
}
