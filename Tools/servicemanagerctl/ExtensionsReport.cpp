#include "Tools/servicemanagerctl/ExtensionsReport.h"

#include <algorithm>
#include <array>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/BusyReport.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

constexpr std::size_t kColumns = 7;
using Row = std::array<std::string, kColumns>;

std::string yesOrNo(const Value& fact) {
  const auto known = fact.boolean();
  if (!known) return "-";
  return *known ? "yes" : "no";
}

// A bundle that would not be loaded counts as faulty even while an older copy of it runs.
std::string installation(const Value& extension) {
  if (!extension[kFactKextPath].string()) return "no";
  return extension[kFactKextFault].string() ? "damaged" : "yes";
}

bool isLoadingUnknown(const Value& extension) {
  return extension[kFactKextIdentifier].string() && extension[kFactKextIsLoaded].isNil();
}

// Names the process if the extension runs as one.
std::string loading(const Value& extension) {
  if (isLoadingUnknown(extension)) return "unknown";
  const auto process = extension[kFactKextProcess].integer();
  if (!process) return yesOrNo(extension[kFactKextIsLoaded]);
  return *process > 0 ? fmt::format("process {}", *process) : "no process";
}

std::string connection(const Value& extension) {
  if (extension[kFactKextIsAnswering].boolean() == false) return "no answer";
  return yesOrNo(extension[kFactKextIsConnected]);
}

std::string servicesOf(const Value& extension) {
  const Array* services = extension[kFactKextServices].array();
  if (!services || services->empty()) return "-";
  std::vector<std::string> labels;
  for (const Value& label : *services) {
    if (label.string()) labels.push_back(plain(*label.string()));
  }
  return fmt::format("{}", fmt::join(labels, ", "));
}

Row rowOf(const std::string& name, const Value& extension) {
  const std::string* identifier = extension[kFactKextIdentifier].string();
  return {plain(name),
          identifier ? plain(*identifier) : "-",
          installation(extension),
          loading(extension),
          connection(extension),
          yesOrNo(extension[kFactKextIsConfigured]),
          servicesOf(extension)};
}

std::string lineOf(const Row& row, const std::array<std::size_t, kColumns>& widths) {
  std::string line;
  for (std::size_t i = 0; i + 1 < kColumns; ++i) {
    line += fmt::format("{:<{}}  ", row[i], widths[i]);
  }
  return line + row.back();
}

// The notes that do not fit into the table.
std::string notesOn(const std::string& name, const Value& extension) {
  std::string notes;
  if (const std::string* fault = extension[kFactKextFault].string()) {
    notes += fmt::format("{}: {}\n", plain(name), plain(*fault));
  }
  if (extension[kFactKextIsAnswering].boolean() == false) {
    notes +=
        fmt::format("{}: takes connections, but gives no answer within a second\n", plain(name));
  } else if (extension[kFactKextIsLoaded].boolean() == true &&
             extension[kFactKextIsConnected].boolean() == false) {
    notes += fmt::format("{}: is loaded, but takes no connection\n", plain(name));
  }
  if (const std::string failure = failureOfExtension(extension); !failure.empty())
    notes += fmt::format("{}: {}\n", plain(name), failure);
  if (const std::string* path = extension[kFactKextLoadedPath].string()) {
    notes += fmt::format("{}: was loaded from {}\n", plain(name), plain(*path));
  }
  return notes;
}

}  // namespace

std::string tableOfExtensions(const Value& facts, Reader reader) {
  const Dictionary* extensions = facts.dictionary();
  if (!extensions || extensions->empty()) return "The catalogue names no kernel extension.\n";
  std::vector<Row> rows;
  std::string notes;
  for (const auto& [name, extension] : *extensions) {
    rows.push_back(rowOf(name, extension));
    notes += notesOn(name, extension);
  }
  std::ranges::sort(rows);
  const Row heading{"NAME",      "IDENTIFIER", "INSTALLED", "LOADED",
                    "CONNECTED", "CONFIGURED", "USED BY"};
  std::array<std::size_t, kColumns> widths{};
  for (std::size_t i = 0; i < kColumns; ++i) {
    widths[i] = heading[i].size();
    for (const Row& row : rows) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string text = coloured(lineOf(heading, widths), Colour::kBold, reader) + "\n";
  for (const Row& row : rows) text += lineOf(row, widths) + "\n";
  return notes.empty() ? text : text + "\n" + notes;
}

nlohmann::ordered_json jsonOfExtensions(const Value& facts) {
  auto json = jsonOf(facts);
  if (!facts.dictionary()) return json;
  for (const auto& [name, extension] : *facts.dictionary()) {
    // A missing key would look like a word that a program may ignore.
    if (isLoadingUnknown(extension)) json[name][kFactKextIsLoaded] = nullptr;
  }
  return json;
}

bool isAnyLoadingUnknown(const Value& facts) {
  const Dictionary* extensions = facts.dictionary();
  return extensions && std::ranges::any_of(*extensions, [](const auto& entry) {
           return isLoadingUnknown(entry.second);
         });
}
