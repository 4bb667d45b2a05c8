#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <dbus/dbus.h>

#include "Platform/Linux/Systemd/UnitProperty.h"

namespace platform {

// The messages from and to systemd. Each function that appends returns false if there is no memory.

// The name of systemd on the bus, and its object and interface of units.
inline constexpr char kSystemdName[] = "org.freedesktop.systemd1";
inline constexpr char kSystemdPath[] = "/org/freedesktop/systemd1";
inline constexpr char kSystemdInterface[] = "org.freedesktop.systemd1.Manager";

using AppendArguments = std::function<bool(DBusMessageIter&)>;

// Appends the arguments of a call. `append` may be empty.
bool appendAll(DBusMessage* message, const AppendArguments& append);

AppendArguments appendingTexts(std::vector<std::string> texts);

// The arguments of StartTransientUnit.
bool appendTransientUnit(DBusMessageIter& into, const std::string& unit,
                         const std::vector<UnitProperty>& properties);

// The value of a property's answer: an integer or a boolean, or a text. Empty if it is another
// kind.
std::optional<std::uint64_t> numberIn(DBusMessage* answer);
std::string textIn(DBusMessage* answer);

// Whether the signal says that the unit's job has failed.
bool isFailedJob(DBusMessage* signal, const std::string& unit);

}  // namespace platform
