#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace platform {

// An open file that systemd gets with a property.
struct UnitDescriptor {
  int descriptor = -1;

  bool operator==(const UnitDescriptor&) const = default;
};

// A command of a unit: the path of the program, and its arguments with the program's own name
// first.
struct UnitCommand {
  std::string path;
  std::vector<std::string> arguments;

  bool operator==(const UnitCommand&) const = default;
};

// A property of a unit, as StartTransientUnit takes it.
struct UnitProperty {
  // In the order of D-Bus's types s, b, i, u, t, as, au, h and a(sasb).
  using Value = std::variant<std::string, bool, std::int32_t, std::uint32_t, std::uint64_t,
                             std::vector<std::string>, std::vector<std::uint32_t>, UnitDescriptor,
                             UnitCommand>;

  std::string name;
  Value value;

  bool operator==(const UnitProperty&) const = default;
};

}  // namespace platform
