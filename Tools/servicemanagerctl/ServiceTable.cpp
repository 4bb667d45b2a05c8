#include "Tools/servicemanagerctl/ServiceTable.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <tuple>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Tools/servicemanagerctl/ServiceWhy.h"
#include "Tools/servicemanagerctl/TimeWords.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Field = ServiceField;
using Cells = std::vector<std::string>;

struct FieldTexts {
  Field field;
  std::string_view name;
  std::string_view heading;
  bool isNumber;
};

constexpr std::array<FieldTexts, 13> kFields{{
    {Field::kLabel, "label", "LABEL", false},
    {Field::kType, "type", "TYPE", false},
    {Field::kState, "state", "STATE", false},
    {Field::kProcess, "pid", "PID", true},
    {Field::kSince, "since", "SINCE", true},
    {Field::kStarts, "starts", "STARTS", true},
    {Field::kCrashes, "crashes", "CRASHES", true},
    {Field::kLastExit, "last-exit", "LAST EXIT", false},
    {Field::kProcesses, "processes", "PROCESSES", true},
    {Field::kCpuTime, "cpu-time", "CPU TIME", true},
    {Field::kMemory, "memory", "MEMORY", true},
    {Field::kReason, "reason", "REASON", false},
    {Field::kWhy, "why", "WHY", false},
}};

// Those that a narrow terminal can do without, the most dispensable one first.
constexpr std::array kDispensable{Field::kType, Field::kStarts, Field::kSince, Field::kProcess};

constexpr std::string_view kGap = "  ";
constexpr std::string_view kIndent = "    ";

const FieldTexts& textsOf(Field field) {
  return *std::ranges::find(kFields, field, &FieldTexts::field);
}

std::string countOf(const JobState& job, std::int64_t JobHistory::* count) {
  return job.history ? fmt::format("{}", (*job.history).*count) : std::string();
}

// Empty if it is not known.
std::string cellOf(Field field, const ServiceState& service, WallTime now) {
  const JobState& job = service.job;
  switch (field) {
    case Field::kLabel:
      return plain(job.label);
    case Field::kType:
      return std::string(typeWord(service.type));
    case Field::kState:
      return inWords(service);
    case Field::kProcess:
      return job.process ? fmt::format("{}", *job.process) : std::string();
    case Field::kSince:
      return service.since ? ageInWords(now - *service.since) : std::string();
    case Field::kStarts:
      return countOf(job, &JobHistory::starts);
    case Field::kCrashes:
      return countOf(job, &JobHistory::crashes);
    case Field::kLastExit:
      return job.lastExit == JobState::Ending{} ? std::string() : inWords(job.lastExit);
    case Field::kProcesses:
      return job.tree ? fmt::format("{}", job.tree->processes) : std::string();
    case Field::kCpuTime:
      return job.tree ? cpuTimeInWords(job.tree) : std::string();
    case Field::kMemory:
      return job.tree && job.tree->memoryBytes ? memoryInWords(job.tree) : std::string();
    case Field::kReason:
      return plain(service.reason);
    case Field::kWhy:
      return service.why;
  }
  return {};
}

std::string valueOf(Field field, const ServiceState& service) {
  const auto& tree = service.job.tree;
  switch (field) {
    case Field::kSince:
      return service.since ? timeAsText(*service.since) : std::string();
    case Field::kCpuTime:
      return tree ? fmt::format("{:.3f}", std::chrono::duration<double>(tree->cpuTime).count())
                  : std::string();
    case Field::kMemory:
      return tree && tree->memoryBytes ? fmt::format("{}", *tree->memoryBytes) : std::string();
    default:
      return cellOf(field, service, {});
  }
}

std::string_view symbolOf(ServiceMark mark) {
  switch (mark) {
    case ServiceMark::kFailed:
      return "! ";
    case ServiceMark::kUnknown:
      return "? ";
    case ServiceMark::kChanging:
      return "~ ";
    case ServiceMark::kRunning:
      return "* ";
    case ServiceMark::kOff:
      return "- ";
  }
  return "";
}

std::string painted(const std::string& text, const ServiceState& service, Reader reader) {
  const ServiceMark mark = markOf(service);
  if (mark == ServiceMark::kFailed) return coloured(text, Colour::kRed, reader);
  return mark == ServiceMark::kRunning ? coloured(text, Colour::kGreen, reader) : text;
}

// The number of characters; a label may have others than ASCII's.
std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::count_if(
      text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0u) != 0x80u; }));
}

std::string padded(const std::string& text, std::size_t width, bool atTheLeft) {
  const std::string blanks(width - std::min(width, widthOf(text)), ' ');
  return atTheLeft ? blanks + text : text + blanks;
}

// The cells of a table, with the heading as the first row.
class Grid {
 public:
  Grid(const ServiceFields& fields, const std::vector<ServiceState>& services,
       const ServiceTable& table)
      : fields_(fields), services_(services), reader_(table.reader) {
    Cells heading;
    for (const Field field : fields_) {
      const bool hasSymbol = field == Field::kState && reader_ != Reader::kOther;
      heading.push_back((hasSymbol ? "  " : "") + std::string(textsOf(field).heading));
    }
    add(std::move(heading));
    for (const ServiceState& service : services_) {
      Cells row;
      for (const Field field : fields_) row.push_back(shownCell(field, service, table.now));
      add(std::move(row));
    }
  }

  std::size_t width() const {
    std::size_t width = kGap.size() * (widths_.size() - 1);
    for (const std::size_t column : widths_) width += column;
    return width;
  }

  std::string heading() const {
    return coloured(lineOf(rows_.front(), nullptr), Colour::kBold, reader_) + "\n";
  }
  std::string line(std::size_t index) const {
    return lineOf(rows_[index + 1], &services_[index]) + "\n";
  }

 private:
  void add(Cells row) {
    widths_.resize(row.size());
    for (std::size_t i = 0; i < row.size(); ++i) widths_[i] = std::max(widths_[i], widthOf(row[i]));
    rows_.push_back(std::move(row));
  }

  std::string shownCell(Field field, const ServiceState& service, WallTime now) const {
    std::string cell = cellOf(field, service, now);
    if (cell.empty()) cell = "-";
    if (field != Field::kState || reader_ == Reader::kOther) return cell;
    return std::string(symbolOf(markOf(service))) + cell;
  }

  // The last cell has no blanks behind it.
  std::string lineOf(const Cells& row, const ServiceState* service) const {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool isNumber = textsOf(fields_[i]).isNumber;
      const bool isLast = i + 1 == row.size();
      const std::string cell = isLast && !isNumber ? row[i] : padded(row[i], widths_[i], isNumber);
      line += fields_[i] == Field::kState && service ? painted(cell, *service, reader_) : cell;
      if (!isLast) line += kGap;
    }
    return line;
  }

  const ServiceFields fields_;
  const std::vector<ServiceState>& services_;
  const Reader reader_;
  std::vector<Cells> rows_;
  std::vector<std::size_t> widths_;
};

// The reason stands on a line of its own below its service.
std::string narrowTable(const std::vector<ServiceState>& services, ServiceFields fields,
                        const ServiceTable& table) {
  std::erase(fields, Field::kWhy);
  for (const Field field : kDispensable) {
    if (Grid(fields, services, table).width() <= table.width) break;
    std::erase(fields, field);
  }
  const Grid grid(fields, services, table);
  std::string text = grid.heading();
  for (std::size_t i = 0; i < services.size(); ++i) {
    text += grid.line(i);
    const std::size_t width = table.width - std::min(table.width, kIndent.size());
    for (const std::string& line : wrapped(services[i].why, width))
      text += fmt::format("{}{}\n", kIndent, line);
  }
  return text;
}

}  // namespace

std::optional<ServiceField> fieldNamed(std::string_view name) {
  const auto found = std::ranges::find(kFields, name, &FieldTexts::name);
  if (found == kFields.end()) return std::nullopt;
  return found->field;
}

std::string namesOfFields() {
  std::vector<std::string_view> names;
  for (const FieldTexts& texts : kFields) names.push_back(texts.name);
  return fmt::format("{}", fmt::join(names, ", "));
}

void sortForReading(std::vector<ServiceState>& services) {
  std::ranges::sort(services, {}, [](const ServiceState& service) {
    return std::tuple(markOf(service), service.job.label);
  });
}

std::string asTable(const std::vector<ServiceState>& services, const ServiceTable& table) {
  if (services.empty()) return "No services.\n";
  using enum ServiceField;
  static const ServiceFields kUsual{kLabel, kType, kState, kProcess, kSince, kStarts, kWhy};
  static const ServiceFields kWide{kLabel,   kType,      kState,   kProcess, kSince,    kStarts,
                                   kCrashes, kProcesses, kCpuTime, kMemory,  kLastExit, kWhy};
  const bool isUsual = table.fields.empty() && !table.isWide;
  const ServiceFields fields =
      !table.fields.empty() ? table.fields : (table.isWide ? kWide : kUsual);
  const Grid grid(fields, services, table);
  if (isUsual && table.width > 0 && grid.width() > table.width)
    return narrowTable(services, fields, table);
  std::string text = grid.heading();
  for (std::size_t i = 0; i < services.size(); ++i) text += grid.line(i);
  return text;
}

std::string asValues(const std::vector<ServiceState>& services, const ServiceFields& fields) {
  std::string text;
  for (const ServiceState& service : services) {
    Cells row;
    for (const ServiceField field : fields) row.push_back(valueOf(field, service));
    text += fmt::format("{}\n", fmt::join(row, "\t"));
  }
  return text;
}
