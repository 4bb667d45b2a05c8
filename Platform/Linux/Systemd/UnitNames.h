#pragma once

#include <string>
#include <string_view>

namespace platform {

// The text as a part of a unit's name, escaped as systemd does it: letters, digits, ":", "_" and
// "." stay, "/" becomes
// "-", and every other byte, a leading "." too, becomes "\x" with two digits.
std::string escapedForUnitName(std::string_view text);

// The D-Bus path of the unit's object.
std::string unitObjectPath(std::string_view unit);

}  // namespace platform
