#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Time.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

// The table of "list".

enum class ServiceField {
  kLabel,
  kType,
  kState,
  kProcess,
  kSince,
  kStarts,
  kCrashes,
  kLastExit,
  kProcesses,
  kCpuTime,
  kMemory,
  kReason,
  kWhy,
};
using ServiceFields = std::vector<ServiceField>;

// The field of that name on the command line.
std::optional<ServiceField> fieldNamed(std::string_view name);
// "label, type, ...".
std::string namesOfFields();

struct ServiceTable {
  ServiceFields fields = {};  // empty: the usual ones, as many as the width has room for
  bool isWide = false;        // the usual ones and what the processes use, whatever the width is
  Reader reader = Reader::kOther;
  std::size_t width = 0;  // of the terminal; 0 for any
  platform::WallTime now = {};
};

// Those that need attention first, and otherwise by label.
void sortForReading(std::vector<ServiceState>& services);

// Every line has a line end. Without services the table is a sentence. A terminal gets a symbol
// before each state: "!" failed, "?" unknown, "~" changing, "*" running, "-" off.
std::string asTable(const std::vector<ServiceState>& services, const ServiceTable& table);

// For scripts: a line for each service, with the values of the fields between tabulators. A value
// that is not known is empty; times are complete.
std::string asValues(const std::vector<ServiceState>& services, const ServiceFields& fields);
