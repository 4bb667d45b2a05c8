#pragma once

#include <cstdlib>
#include <string>

namespace platform {

// Whether the job hosts of these tests let systemd start the processes: Tests/boot-systemd boots
// one for that, and VANTOR_TEST_JOB_BACKEND is "systemd".
inline bool testsUseSystemd() {
  const char* const backend = std::getenv("VANTOR_TEST_JOB_BACKEND");
  return backend != nullptr && std::string(backend) == "systemd";
}

// The entry for that in a platform.plist which has these other entries.
inline std::string jobBackendEntry(const std::string& others = {}) {
  if (!testsUseSystemd() || others.find("JobBackend") != others.npos) return {};
  return "<key>JobBackend</key><string>systemd</string>";
}

}  // namespace platform
