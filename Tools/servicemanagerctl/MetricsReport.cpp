#include "Tools/servicemanagerctl/MetricsReport.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/JobsReport.h"

namespace {

using namespace platform;
using MetricsService = MetricsReport::Service;

double secondsOf(Duration duration) { return std::chrono::duration<double>(duration).count(); }

// Escapes a label's value, of which the format knows three characters.
std::string metricLabel(std::string_view text) {
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

class MetricsText {
 public:
  void describe(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    fmt::format_to(out(), "# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
  }
  void add(double value) { fmt::format_to(out(), "{} {}\n", name_, value); }
  void add(std::string_view labels, double value) {
    fmt::format_to(out(), "{}{{{}}} {}\n", name_, labels, value);
  }
  std::string take() { return std::move(text_); }

 private:
  std::back_insert_iterator<std::string> out() { return std::back_inserter(text_); }

  std::string text_;
  std::string_view name_;
};

std::string serviceLabel(const MetricsService& service) {
  return fmt::format("service=\"{}\"", metricLabel(service.label));
}

// A metric of the services that have a value.
struct ServiceMetric {
  std::string_view name;
  std::string_view type;
  std::string_view help;
  std::function<std::optional<double>(const MetricsService&)> valueOf;
};

std::optional<double> asNumber(std::optional<bool> flag) {
  return flag ? std::optional(*flag ? 1.0 : 0.0) : std::nullopt;
}

std::optional<double> wantedOf(const MetricsService& service) {
  if (service.isRunning == true) return 1;
  return asNumber(oughtToRun(service.reason));
}

ServiceMetric countMetric(std::string_view name, std::string_view help,
                          std::int64_t JobHistory::* count) {
  return {name, "counter", help, [count](const MetricsService& service) -> std::optional<double> {
            if (!service.history) return std::nullopt;
            return static_cast<double>((*service.history).*count);
          }};
}

const std::vector<ServiceMetric>& serviceMetrics() {
  static const std::vector<ServiceMetric> kMetrics{
      {"servicemanager_service_running", "gauge", "Whether the service has a process.",
       [](const MetricsService& service) { return asNumber(service.isRunning); }},
      {"servicemanager_service_wanted", "gauge", "Whether the service ought to run.", wantedOf},
      countMetric("servicemanager_service_starts_total", "How often a process was started.",
                  &JobHistory::starts),
      countMetric("servicemanager_service_ends_total", "How often a process ended.",
                  &JobHistory::ends),
      countMetric("servicemanager_service_crashes_total", "How often a process crashed.",
                  &JobHistory::crashes),
      {"servicemanager_service_processes", "gauge", "The processes of the service.",
       [](const MetricsService& service) -> std::optional<double> {
         if (!service.tree) return std::nullopt;
         return static_cast<double>(service.tree->processes);
       }},
      {"servicemanager_service_cpu_seconds_total", "counter", "The CPU time of its processes.",
       [](const MetricsService& service) -> std::optional<double> {
         if (!service.tree) return std::nullopt;
         return secondsOf(service.tree->cpuTime);
       }},
      {"servicemanager_service_memory_bytes", "gauge", "The memory of its processes.",
       [](const MetricsService& service) -> std::optional<double> {
         if (!service.tree || !service.tree->memoryBytes) return std::nullopt;
         return static_cast<double>(*service.tree->memoryBytes);
       }},
  };
  return kMetrics;
}

void addServiceMetrics(MetricsText& text, const std::vector<MetricsService>& services) {
  for (const ServiceMetric& metric : serviceMetrics()) {
    const bool hasAny = std::ranges::any_of(services, [&](const MetricsService& service) {
      return metric.valueOf(service).has_value();
    });
    if (!hasAny) continue;
    text.describe(metric.name, metric.type, metric.help);
    for (const MetricsService& service : services) {
      if (const auto value = metric.valueOf(service)) text.add(serviceLabel(service), *value);
    }
  }
  const auto hasReason = [](const MetricsService& service) { return !service.reason.empty(); };
  if (std::ranges::none_of(services, hasReason)) return;
  text.describe("servicemanager_service_down_reason", "gauge", "Why the service does not run.");
  for (const MetricsService& service : services) {
    if (hasReason(service))
      text.add(fmt::format("{},reason=\"{}\"", serviceLabel(service), metricLabel(service.reason)),
               1);
  }
}

void addManager(MetricsText& text, const MetricsReport::Manager& manager) {
  text.describe("servicemanager_answer_seconds", "gauge",
                "How long the service manager took to tell of all services.");
  text.add(secondsOf(manager.answerTime));
  text.describe("servicemanager_main_thread_busy_seconds", "gauge",
                "For how long its main thread has done one thing, 0 if it is free.");
  text.add(manager.busyFor);
  constexpr std::array<std::pair<std::int64_t, std::string_view>, 3> kModes{
      {{ORBOperatingModeNormal, "normal"},
       {ORBOperatingModeInstaller, "installer"},
       {ORBOperatingModeWaitingForPrimaryService, "waiting"}}};
  text.describe("servicemanager_mode", "gauge", "1 for the operating mode.");
  for (const auto& [mode, name] : kModes)
    text.add(fmt::format("mode=\"{}\"", name), manager.mode == mode ? 1 : 0);
  addServiceMetrics(text, manager.services);
}

}  // namespace

MetricsReport::Manager managerIn(const Value& overview, const Value& jobs) {
  MetricsReport::Manager manager{
      .mode = overview[kFactOperatingMode].integer().value_or(ORBOperatingModeNormal),
      .busyFor = overview[kFactMainThread][kFactBusyFor].real().value_or(0),
      .services = {}};
  const Dictionary* services = overview[kFactServices].dictionary();
  if (!services) return manager;
  for (const auto& [label, facts] : *services) {
    MetricsService service{.label = label};
    const JobState job = jobState(label, jobs[label][kFactJob]);
    if (jobs[label][kFactJobIsUnknown] != Value(true)) service.isRunning = job.process.has_value();
    service.history = job.history;
    service.tree = job.tree;
    manager.services.push_back(std::move(service));
  }
  std::ranges::sort(manager.services, {}, &MetricsService::label);
  return manager;
}

std::optional<bool> oughtToRun(std::string_view reason) {
  constexpr std::array kOughtToRun{kReasonEnded,     kReasonNotStarted, kReasonDamaged,
                                   kReasonNoProgram, kReasonUnchecked,  kReasonExtension,
                                   kReasonPrimary,   kReasonCore,       kReasonSwitch};
  if (reason.empty() || reason == kReasonUnknown) return std::nullopt;
  return std::ranges::find(kOughtToRun, reason) != kOughtToRun.end();
}

std::string asMetrics(const MetricsReport& report) {
  MetricsText text;
  text.describe("servicemanager_up", "gauge", "Whether the service manager answers.");
  text.add(report.manager ? 1 : 0);
  text.describe("servicemanager_collected_timestamp_seconds", "gauge",
                "When these metrics were collected.");
  text.add(std::floor(secondsOf(report.collected.time_since_epoch())));
  if (report.manager) addManager(text, *report.manager);
  return text.take();
}
