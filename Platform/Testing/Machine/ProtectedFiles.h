#pragma once

#include <array>
#include <memory>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace platform {

// While it lives, the kernel protects pipes and regular files in the sticky folders of others, as
// Debian has it (fs.protected_fifos is 1 there, fs.protected_regular 2) and stricter: both are 2.
// They are settings of the whole machine, so one process at a time has them, and others are not
// harmed.
class ProtectedFiles {
 public:
  // Null if this process may not change them.
  static std::unique_ptr<ProtectedFiles> turnOn() {
    std::unique_ptr<ProtectedFiles> made(new ProtectedFiles);
    return made->isOn_ ? std::move(made) : nullptr;
  }
  ProtectedFiles(const ProtectedFiles&) = delete;
  ProtectedFiles& operator=(const ProtectedFiles&) = delete;
  ~ProtectedFiles() {
    for (Setting& setting : settings_) {
      if (!setting.before.empty()) write(setting, setting.before);
      if (setting.file >= 0) ::close(setting.file);
    }
  }

 private:
  struct Setting {
    const char* path;
    int file = -1;
    std::string before = {};
  };

  // The lock is on the first file.
  ProtectedFiles() {
    for (Setting& setting : settings_) {
      setting.file = ::open(setting.path, O_RDWR | O_CLOEXEC);
      if (setting.file < 0) return;
      if (&setting == &settings_.front() && ::flock(setting.file, LOCK_EX) != 0) return;
      std::array<char, 16> value;
      const auto size = ::pread(setting.file, value.data(), value.size(), 0);
      if (size <= 0) return;
      setting.before.assign(value.data(), static_cast<std::size_t>(size));
      if (!write(setting, "2\n")) return;
    }
    isOn_ = true;
  }
  static bool write(const Setting& setting, const std::string& value) {
    return ::pwrite(setting.file, value.data(), value.size(), 0) ==
           static_cast<ssize_t>(value.size());
  }

  std::array<Setting, 2> settings_{
      {{"/proc/sys/fs/protected_fifos"}, {"/proc/sys/fs/protected_regular"}}};
  bool isOn_ = false;
};

}  // namespace platform
