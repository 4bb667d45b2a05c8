#include "Tools/servicemanagerctl/HealthReport.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <fmt/format.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Json = nlohmann::ordered_json;
using Service = HealthReport::Service;

constexpr std::array kStatuses{HealthStatus::kUnready, HealthStatus::kRunning,
                               HealthStatus::kStopped, HealthStatus::kUpdating};

std::optional<HealthStatus> statusIn(const Value& service) {
  const auto number = service[kHealthStatus].integer();
  const auto* found = std::ranges::find_if(
      kStatuses, [&](auto known) { return std::to_underlying(known) == number; });
  return found == kStatuses.end() ? std::nullopt : std::optional(*found);
}

std::string_view wordsFor(const Service& service) {
  return service.status ? nameOf(*service.status) : "not supervised";
}

std::string_view healthOf(const Service& service) {
  if (!service.isHealthy) return "-";
  return *service.isHealthy ? "healthy" : "unhealthy";
}

std::string crashesOf(const Service& service) { return fmt::format("{}", service.crashes); }

// Escapes a label's value of a metric; the format knows three escapes.
std::string escapedLabelValue(const std::string& text) {
  std::string result;
  for (const char character : text) {
    if (character == '\n') {
      result += "\\n";
      continue;
    }
    if (character == '\\' || character == '"') result += '\\';
    result += character;
  }
  return result;
}

std::string labelsOf(const Service& service) {
  return fmt::format("service=\"{}\",name=\"{}\"", escapedLabelValue(service.label),
                     escapedLabelValue(service.name));
}

// Adds the lines that describe a metric.
void describeMetric(std::string& text, std::string_view metric, std::string_view type,
                    std::string_view help) {
  fmt::format_to(std::back_inserter(text), "# TYPE {0} {1}\n# HELP {0} {2}\n", metric, type, help);
}

void addServices(std::string& text, const std::vector<Service>& services) {
  const auto out = std::back_inserter(text);
  constexpr std::string_view kStatus = "servicemanager_service_status";
  describeMetric(text, kStatus, "stateset", "How the service is.");
  for (const Service& service : services) {
    if (!service.status) continue;
    for (const HealthStatus status : kStatuses) {
      fmt::format_to(out, "{0}{{{1},{0}=\"{2}\"}} {3}\n", kStatus, labelsOf(service),
                     nameOf(status), service.status == status ? 1 : 0);
    }
  }
  // It is no counter, because a summary resets it.
  constexpr std::string_view kForcedStops = "servicemanager_service_forced_stops";
  describeMetric(text, kForcedStops, "gauge",
                 "How often the service ended by itself since the health reporter last asked.");
  for (const Service& service : services) {
    fmt::format_to(out, "{}{{{}}} {}\n", kForcedStops, labelsOf(service), service.crashes);
  }
  constexpr std::string_view kHealthyMetric = "servicemanager_service_healthy";
  describeMetric(text, kHealthyMetric, "gauge",
                 "Whether the health reporter would be told that the service is healthy.");
  for (const Service& service : services) {
    if (!service.isHealthy) continue;
    fmt::format_to(out, "{}{{{}}} {}\n", kHealthyMetric, labelsOf(service),
                   *service.isHealthy ? 1 : 0);
  }
}

void addCounts(std::string& text, const std::vector<Service>& services) {
  struct Count {
    std::string_view metric;
    std::string_view help;
    std::int64_t JobHistory::* count;
  };
  constexpr Count kCounts[] = {
      {"servicemanager_service_starts", "How often a process was started.", &JobHistory::starts},
      {"servicemanager_service_ends", "How often a process ended.", &JobHistory::ends},
      {"servicemanager_service_crashes", "How often a process crashed.", &JobHistory::crashes}};
  for (const Count& count : kCounts) {
    if (std::ranges::none_of(services,
                             [](const Service& service) { return service.history.has_value(); }))
      return;
    describeMetric(text, count.metric, "counter", count.help);
    for (const Service& service : services) {
      if (!service.history) continue;
      fmt::format_to(std::back_inserter(text), "{}_total{{{}}} {}\n", count.metric,
                     labelsOf(service), (*service.history).*count.count);
    }
  }
}

}  // namespace

std::optional<HealthReport> healthReport(const Value& record, const Value& jobs) {
  if (!record.dictionary()) return std::nullopt;
  HealthReport report{.isReadyToReport = record[kHealthReadyToReport].boolean().value_or(false),
                      .crashLimit = record[kHealthCrashLimit].integer().value_or(0),
                      .services = {}};
  const Dictionary* services = record[kHealthServices].dictionary();
  if (!services) return report;
  for (const auto& [label, service] : *services) {
    const std::string* name = service[kHealthName].string();
    const auto reported = service[kHealthReported].integer();
    report.services.push_back(
        {.label = label,
         .name = name ? *name : label,
         .status = statusIn(service),
         .crashes = service[kHealthCrashes].integer().value_or(0),
         .isHealthy = reported ? std::optional(*reported == kHealthy) : std::nullopt,
         .history = jobState(label, jobs[label][kFactJob]).history});
  }
  std::ranges::sort(report.services, {}, &Service::label);
  return report;
}

std::string_view nameOf(HealthStatus status) {
  switch (status) {
    case HealthStatus::kUnready:
      return "unready";
    case HealthStatus::kRunning:
      return "running";
    case HealthStatus::kStopped:
      return "stopped";
    case HealthStatus::kUpdating:
      return "updating";
  }
  return "";
}

std::string asTable(const std::optional<HealthReport>& health, Reader reader) {
  if (!health) return "The installed product keeps no health record.\n";
  std::string text;
  const auto out = std::back_inserter(text);
  constexpr std::string_view kLabelHeading = "LABEL";
  std::size_t width = kLabelHeading.size();
  for (const Service& service : health->services) {
    width = std::max(width, plain(service.label).size());
  }
  if (!health->services.empty()) {
    fmt::format_to(out, "{}\n",
                   coloured(fmt::format("{:<{}}  {:<14}  {:>7}  {}", kLabelHeading, width, "STATUS",
                                        "CRASHES", "REPORTED"),
                            Colour::kBold, reader));
  }
  for (const Service& service : health->services) {
    const std::string crashes = fmt::format("{:>7}", crashesOf(service));
    const std::string said(healthOf(service));
    const bool isUnhealthy = service.isHealthy == false;
    fmt::format_to(out, "{:<{}}  {:<14}  {}  {}\n", plain(service.label), width, wordsFor(service),
                   service.crashes > 0 ? coloured(crashes, Colour::kRed, reader) : crashes,
                   isUnhealthy
                       ? coloured(said, Colour::kRed, reader)
                       : (service.isHealthy ? coloured(said, Colour::kGreen, reader) : said));
  }
  for (const Service& service : health->services) {
    if (service.history && service.history->crashes > 0)
      text += fmt::format("\n{}\n{}", plain(service.label), asText(*service.history));
  }
  if (!health->isReadyToReport) {
    text += "The health reporter is told not to rely on this now.\n";
  }
  return text;
}

Json asJson(const std::optional<HealthReport>& health) {
  if (!health) return nullptr;
  Json services = Json::array();
  for (const Service& service : health->services) {
    Json json{{"label", service.label}, {"name", service.name}};
    json["status"] = service.status ? Json(nameOf(*service.status)) : Json();
    json["crashes"] = service.crashes;
    json["healthy"] = service.isHealthy ? Json(*service.isHealthy) : Json();
    if (service.history) json["history"] = asJson(*service.history);
    services.push_back(std::move(json));
  }
  return {{"readyToReport", health->isReadyToReport},
          {"crashLimit", health->crashLimit},
          {"services", std::move(services)}};
}

std::string asOpenMetrics(const std::optional<HealthReport>& health) {
  std::string text;
  if (health) {
    constexpr std::string_view kReady = "servicemanager_ready_to_report";
    describeMetric(text, kReady, "gauge", "Whether the health reporter may rely on the rest.");
    fmt::format_to(std::back_inserter(text), "{} {}\n", kReady, health->isReadyToReport ? 1 : 0);
    constexpr std::string_view kLimit = "servicemanager_crash_limit";
    describeMetric(text, kLimit, "gauge", "Forced stops at which a service is unhealthy.");
    fmt::format_to(std::back_inserter(text), "{} {}\n", kLimit, health->crashLimit);
    addServices(text, health->services);
    addCounts(text, health->services);
  }
  return text + "# EOF\n";
}
