#include "Platform/Linux/Systemd/SystemdManager.h"

#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <poll.h>

#include "Platform/Linux/Systemd/SystemdBus.h"
#include "Platform/Linux/Systemd/UnitMessages.h"
#include "Platform/Linux/Systemd/UnitNames.h"

namespace platform {
namespace {

// Drop-ins without a unit are "bad-setting", and load again with each question.
constexpr char kLoaded[] = "loaded";
constexpr char kUnitInterface[] = "org.freedesktop.systemd1.Unit";
constexpr char kServiceInterface[] = "org.freedesktop.systemd1.Service";
constexpr char kPropertiesInterface[] = "org.freedesktop.DBus.Properties";
std::string jobRule(const std::string& unit) {
  return fmt::format("type='signal',sender='{}',interface='{}',member='JobRemoved',arg2='{}'",
                     kSystemdName, kSystemdInterface, unit);
}

std::string removalRule(const std::string& unit) {
  return fmt::format("type='signal',sender='{}',interface='{}',member='UnitRemoved',arg0='{}'",
                     kSystemdName, kSystemdInterface, unit);
}

std::string changeRule(const std::string& unit) {
  return fmt::format("type='signal',sender='{}',interface='{}',path='{}'", kSystemdName,
                     kPropertiesInterface, unitObjectPath(unit));
}

Result<UniqueDBusMessage> propertyOf(SystemdBus& bus, const std::string& unit,
                                     const char* interface, const char* name) {
  return bus.call(unitObjectPath(unit), kPropertiesInterface, "Get",
                  appendingTexts({interface, name}));
}

struct Property {
  const char* interface;
  const char* name;
};

// They are read in this order, with one wait for all.
Result<std::vector<UniqueDBusMessage>> propertiesOf(SystemdBus& bus, const std::string& unit,
                                                    const std::vector<Property>& properties) {
  std::vector<AppendArguments> arguments;
  for (const auto& [interface, name] : properties)
    arguments.push_back(appendingTexts({interface, name}));
  return bus.callEach(unitObjectPath(unit), kPropertiesInterface, "Get", arguments);
}

}  // namespace

SystemdManager::SystemdManager(std::string busSocket)
    : bus_(std::make_unique<SystemdBus>(std::move(busSocket))) {}

SystemdManager::~SystemdManager() = default;

Result<void> SystemdManager::startTransientUnit(const std::string& unit,
                                                const std::vector<UnitProperty>& properties) {
  const auto append = [&](DBusMessageIter& into) {
    return appendTransientUnit(into, unit, properties);
  };
  auto started = bus_->call(kSystemdPath, kSystemdInterface, "StartTransientUnit", append);
  if (started) return {};
  return std::unexpected(std::move(started.error()));
}

void SystemdManager::expectJob(const std::string& unit) {
  if (bus_->connect()) bus_->listen(jobRule(unit));
}

void SystemdManager::forgetJob(const std::string& unit) { bus_->stopListening(jobRule(unit)); }

SystemdManager::Awaited SystemdManager::awaitStart(const std::string& unit, int descriptor,
                                                   Duration limit) {
  const Instant deadline = monotonicNow() + limit;
  pollfd entry{descriptor, POLLIN, 0};
  while (monotonicNow() < deadline) {
    if (::poll(&entry, 1, bus_->isConnected() ? 0 : millisecondsOf(deadline - monotonicNow())) > 0)
      return Awaited::kReadable;
    const UniqueDBusMessage message = bus_->nextMessage(deadline, descriptor);
    if (message && isFailedJob(message.get(), unit)) return Awaited::kFailed;
  }
  return ::poll(&entry, 1, 0) > 0 ? Awaited::kReadable : Awaited::kTimedOut;
}

std::optional<std::uint64_t> SystemdManager::number(const std::string& unit, const char* interface,
                                                    const char* name) {
  const auto answer = propertyOf(*bus_, unit, interface, name);
  return answer ? numberIn(answer->get()) : std::nullopt;
}

std::string SystemdManager::text(const std::string& unit, const char* interface, const char* name) {
  const auto answer = propertyOf(*bus_, unit, interface, name);
  return answer ? textIn(answer->get()) : std::string();
}

Result<SystemdManager::Status> SystemdManager::statusOf(const std::string& unit) {
  // Whether it is loaded is read last: systemd may unload the unit meanwhile.
  const auto answers = propertiesOf(*bus_, unit,
                                    {{kServiceInterface, "MainPID"},
                                     {kUnitInterface, "Transient"},
                                     {kServiceInterface, "Slice"},
                                     {kUnitInterface, "LoadState"}});
  if (!answers) return std::unexpected(answers.error());
  Status status;
  status.mainProcess = static_cast<std::uint32_t>(numberIn((*answers)[0].get()).value_or(0));
  status.isTransient = numberIn((*answers)[1].get()) == 1;
  status.slice = textIn((*answers)[2].get());
  status.isLoaded = textIn((*answers)[3].get()) == kLoaded;
  return status;
}

std::optional<std::int32_t> SystemdManager::exitStatusOf(const std::string& unit) {
  const auto status = number(unit, kServiceInterface, "ExecMainStatus");
  return status ? std::optional(static_cast<std::int32_t>(*status)) : std::nullopt;
}

// The code is 0 until systemd has reaped the process. The number of the process is read last, so
// that the end is not that of a later process.
std::optional<SystemdManager::MainEnd> SystemdManager::endOf(const std::string& unit,
                                                             std::uint32_t process) {
  const auto answers = propertiesOf(*bus_, unit,
                                    {{kServiceInterface, "ExecMainCode"},
                                     {kServiceInterface, "ExecMainStatus"},
                                     {kServiceInterface, "ExecMainPID"}});
  if (!answers) return std::nullopt;
  const auto code = numberIn((*answers)[0].get());
  const auto status = numberIn((*answers)[1].get());
  const auto main = numberIn((*answers)[2].get());
  if (main != process || !code || !status) return std::nullopt;
  return MainEnd{static_cast<std::int32_t>(*code), static_cast<std::int32_t>(*status)};
}

std::optional<SystemdManager::MainEnd> SystemdManager::awaitEndOf(const std::string& unit,
                                                                  std::uint32_t process,
                                                                  Duration limit) {
  const Instant deadline = monotonicNow() + limit;
  if (bus_->isHung() || !bus_->connect()) return std::nullopt;
  auto end = endOf(unit, process);
  // systemd reaps a process before it answers, unless the host was faster. Then the next signal of
  // the unit says so.
  if (end && end->code == 0) {
    bus_->subscribe(changeRule(unit));
    do {
      end = endOf(unit, process);
    } while (end && end->code == 0 && monotonicNow() < deadline && bus_->nextMessage(deadline));
    bus_->unsubscribe(changeRule(unit));
  }
  return end && end->code != 0 ? end : std::nullopt;
}

void SystemdManager::release(const std::string& unit) {
  if (bus_->isHung() || !bus_->connect()) return;
  bus_->send("StopUnit", appendingTexts({unit, "replace"}));
  bus_->send("ResetFailedUnit", appendingTexts({unit}));
}

void SystemdManager::releaseAndConfirm(const std::string& unit) {
  release(unit);
  static_cast<void>(text(unit, kUnitInterface, "LoadState"));
}

bool SystemdManager::releaseAndAwait(const std::string& unit, Duration limit) {
  const Instant deadline = monotonicNow() + limit;
  if (bus_->isHung() || !bus_->connect()) return false;
  bus_->subscribe(removalRule(unit));
  release(unit);
  bool isRemoved = false;
  do {
    isRemoved = text(unit, kUnitInterface, "LoadState") != kLoaded;
  } while (!isRemoved && bus_->nextMessage(deadline));
  bus_->unsubscribe(removalRule(unit));
  return isRemoved;
}

void SystemdManager::signalAll(const std::string& unit, int signal) {
  if (bus_->isHung() || !bus_->connect()) return;
  bus_->send("KillUnit", [&](DBusMessageIter& into) {
    const char* name = unit.c_str();
    const char* all = "all";
    const std::int32_t number = signal;
    return dbus_message_iter_append_basic(&into, DBUS_TYPE_STRING, &name) &&
           dbus_message_iter_append_basic(&into, DBUS_TYPE_STRING, &all) &&
           dbus_message_iter_append_basic(&into, DBUS_TYPE_INT32, &number);
  });
}

}  // namespace platform
