#include "Tools/lint/FileLint.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <utility>

#include <fmt/format.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/PropertyLists/PropertyListPlaces.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Tools/lint/CatalogueLint.h"
#include "Tools/lint/CatalogueShape.h"
#include "Tools/lint/JobLint.h"
#include "Tools/lint/KeyLint.h"
#include "Tools/lint/NearName.h"
#include "Tools/lint/Node.h"
#include "Tools/lint/PlatformLint.h"

namespace lint {
namespace {

using platform::Dictionary;
using platform::TextPosition;
using platform::Value;

// The number at the beginning of the text and the ":" behind it, both removed from the text.
std::optional<std::size_t> takeNumber(std::string_view& text) {
  std::size_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || stop == text.data() + text.size() || *stop != ':')
    return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()) + 1);
  return number;
}

// The reader's error begins with the file and, in XML, with the place; see readPropertyList().
void addUnreadable(const std::string& file, std::string_view text, Findings& findings) {
  if (text.starts_with(file + ":")) text.remove_prefix(file.size() + 1);
  std::string_view rest = text;
  const auto line = takeNumber(rest);
  const auto column = line ? takeNumber(rest) : std::nullopt;
  if (column) text = rest;
  while (text.starts_with(' ')) text.remove_prefix(1);
  findings.add(column ? std::optional(TextPosition{*line, *column}) : std::nullopt, "",
               kNoPropertyList, std::string(text));
}

// The error names the file at its beginning, as the finding does.
std::string withoutFileName(std::string text, const std::string& file) {
  if (text.starts_with(file + ": ")) text.erase(0, file.size() + 2);
  return text;
}

// How many keys are of that kind. A misspelt one counts less.
std::size_t likeness(const Dictionary& entries, const std::vector<std::string_view>& known) {
  constexpr std::size_t kExact = 4;
  constexpr std::size_t kEnoughKeys = 200;
  std::size_t points = 0;
  std::size_t seen = 0;
  for (const auto& [key, value] : entries) {
    if (++seen > kEnoughKeys) break;
    if (std::ranges::find(known, key) != known.end()) {
      points += kExact;
    } else if (nearName(key, known)) {
      ++points;
    }
  }
  return points;
}

std::optional<FileKind> kindOf(const Value& content, std::string_view file) {
  const Dictionary* entries = content.dictionary();
  if (!entries) return std::nullopt;
  struct Likeness {
    FileKind kind;
    std::size_t points;
  };
  const std::array all{
      Likeness{FileKind::kCatalogue, likeness(*entries, catalogueKeysOf(CatalogueScope::kRoot))},
      Likeness{FileKind::kJob, likeness(*entries, jobKeys())},
      Likeness{FileKind::kPlatformConfiguration,
               likeness(*entries, platform::platformConfigurationKeys())}};
  const auto likest = std::ranges::max_element(all, {}, &Likeness::points);
  if (likest->points > 0) return likest->kind;
  if (file.ends_with("platform.plist")) return FileKind::kPlatformConfiguration;
  return std::nullopt;
}

void checkContent(FileKind kind, const Node& root, const Machine& machine, Findings& findings) {
  switch (kind) {
    case FileKind::kCatalogue:
      return checkCatalogue(root, machine, findings);
    case FileKind::kJob:
      return checkJob(root, machine, findings);
    case FileKind::kPlatformConfiguration:
      return checkPlatformConfiguration(root, findings);
  }
}

}  // namespace

std::string_view nameOf(FileKind kind) {
  switch (kind) {
    case FileKind::kCatalogue:
      return "catalogue";
    case FileKind::kJob:
      return "job";
    case FileKind::kPlatformConfiguration:
      return "platform";
  }
  return "";
}

FileReport checkFile(const std::string& file, const platform::Result<std::string>& content,
                     const Machine& machine) {
  Findings findings(file);
  FileReport report{.file = file, .kind = {}, .findings = {}};
  if (!content) {
    findings.add(std::nullopt, "", kUnreadable, withoutFileName(describe(content.error()), file));
  } else if (const auto list = platform::readPropertyList(*content, file); !list) {
    addUnreadable(file, list.error().context, findings);
  } else {
    const auto places = platform::placesInPropertyList(*content);
    const Node root{.value = *list,
                    .place = places ? &*places : nullptr,
                    .path = "",
                    .name = "",
                    .isOfDictionary = false};
    report.kind = kindOf(*list, file);
    if (report.kind) {
      checkContent(*report.kind, root, machine, findings);
    } else {
      findings.atValue(
          root, kNoKnownKind,
          fmt::format("{} is neither a catalogue, nor a job, nor platform.plist",
                      list->dictionary() ? "a dictionary with these keys" : typeInWords(*list)));
    }
  }
  report.findings = findings.take();
  return report;
}

}  // namespace lint
