#pragma once

#include <string>

namespace platform {

// A new random UUID (version 4) as 36 characters of upper case. Any thread may call it. Blocks only
// in the first moments of a machine that has not gathered any entropy yet.
std::string newUuidString();

}  // namespace platform
