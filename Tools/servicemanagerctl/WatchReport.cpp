#include "Tools/servicemanagerctl/WatchReport.h"

#include <chrono>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

using Json = nlohmann::ordered_json;

// In the log's format, so that the two can be compared.
std::string textOfTime(WallTime time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return fmt::format("{:%FT%T}Z", fmt::gmtime(seconds.time_since_epoch().count()));
}

// Nothing if it is no plausible time.
std::optional<WallTime> timeOfEvent(const Value& event) {
  constexpr double kMostSeconds = 5e9;
  const auto date = event[kFactEventTime].date();
  const double seconds = date ? date->secondsSinceReferenceDate : -1;
  if (!(seconds >= 0 && seconds < kMostSeconds)) return std::nullopt;
  return WallTime(std::chrono::seconds(kReferenceDateUnixSeconds)) +
         std::chrono::duration_cast<Duration>(std::chrono::duration<double>(seconds));
}

std::string_view wordOfMode(std::int64_t mode) {
  if (mode == ORBOperatingModeNormal) return "normal";
  return mode == ORBOperatingModeInstaller ? "installer" : "waiting";
}

std::string_view sentenceOfMode(std::int64_t mode) {
  if (mode == ORBOperatingModeNormal) return "the mode is normal";
  if (mode == ORBOperatingModeInstaller)
    return "nothing is evaluated while an installer is at work";
  return "nothing is evaluated until the configuration server is up";
}

// A line that begins with its time, of an event with a time and this name.
struct Draft {
  std::string time;
  WatchLine line;

  Draft(WallTime at, std::string_view event) : time(textOfTime(at)) {
    line.json = {{"event", event}, {"time", time}};
  }
  WatchLine with(std::string_view text) {
    line.text = fmt::format("{}  {}\n", time, text);
    return std::move(line);
  }
};

WatchLine lineOfService(Draft draft, const std::string& label, std::optional<std::int64_t> process,
                        Reader reader) {
  Json& json = draft.line.json;
  json["label"] = label;
  json["state"] = process ? "running" : "ended";
  json["pid"] = process ? Json(*process) : Json();
  if (!process)
    return draft.with(fmt::format("{}  {}", plain(label), coloured("ended", Colour::kRed, reader)));
  return draft.with(fmt::format("{}  {} as process {}", plain(label),
                                coloured("runs", Colour::kGreen, reader), *process));
}

WatchLine lineOfExtension(Draft draft, const std::string& name, const Value& failedStep,
                          Reader reader) {
  const std::string* const step = failedStep.string();
  Json& json = draft.line.json;
  json["name"] = name;
  json["state"] = step ? "failed" : "ready";
  json["step"] = step ? Json(*step) : Json();
  return draft.with(fmt::format(
      "extension {}  {}", plain(name),
      step ? coloured("can't be used", Colour::kRed, reader) + ", " + plain(*step) : "is ready"));
}

}  // namespace

std::optional<WatchLine> lineOfEvent(const Value& event, Reader reader) {
  const std::string* const kind = event[kFactEvent].string();
  const auto time = timeOfEvent(event);
  if (!kind || !time) return std::nullopt;
  Draft draft(*time, *kind);
  Json& json = draft.line.json;
  const std::string* const label = event[kFactLabel].string();
  if (*kind == kEventService && label)
    return lineOfService(std::move(draft), *label, event[kFactEventProcess].integer(), reader);
  if (*kind == kEventSettings) {
    const std::string* const key = event[kFactKey].string();
    json["key"] = key ? Json(*key) : Json();
    return draft.with(key ? fmt::format("setting {}  has changed", plain(*key))
                          : "the settings  have changed");
  }
  const auto mode = event[kFactOperatingMode].integer();
  if (*kind == kEventMode && mode) {
    json["mode"] = wordOfMode(*mode);
    return draft.with(fmt::format("service manager  {}", sentenceOfMode(*mode)));
  }
  const auto isAtWork = event[kFactIsInstallerAtWork].boolean();
  if (*kind == kEventInstaller && isAtWork) {
    json["state"] = *isAtWork ? "begun" : "ended";
    return draft.with(*isAtWork ? "installer  has begun" : "installer  has ended");
  }
  const std::string* const extension = event[kFactEventExtension].string();
  if (*kind == kEventExtension && extension)
    return lineOfExtension(std::move(draft), *extension, event[kFactKextFailedStep], reader);
  const auto isWanted = event[kFactEventIsWanted].boolean();
  if (*kind == kEventEvaluation && label && isWanted) {
    json["label"] = *label;
    json["result"] = *isWanted ? "wanted" : "unwanted";
    return draft.with(fmt::format(
        "{}  {}", plain(*label),
        *isWanted ? "is to run: a switch asks for it" : "is to stop: no switch asks for it"));
  }
  return std::nullopt;
}

WatchLine lineOfMissed(std::int64_t count, WallTime now) {
  Draft draft(now, "missed");
  draft.line.json["count"] = count;
  return draft.with(fmt::format("{} events were not read in time and are lost", count));
}

WatchLine lineOfConnection(std::string_view whyLost, WallTime now) {
  Draft draft(now, "connection");
  draft.line.json["state"] = whyLost.empty() ? "restored" : "lost";
  draft.line.json["why"] = whyLost.empty() ? Json() : Json(whyLost);
  return draft.with(whyLost.empty() ? "service manager  answers again"
                                    : fmt::format("service manager  {}", whyLost));
}
