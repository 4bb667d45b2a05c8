#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "ServiceManager/ServiceManager/QuarantineDatabase.h"

// The quarantine database of a user, who may have written anything to it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // One folder for each process, in a file system without a disk where there is one.
  static const std::string home = [] {
    std::string name = std::filesystem::exists("/dev/shm") ? "/dev/shm/quarantine.XXXXXX"
                                                           : "/tmp/quarantine.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    std::filesystem::create_directories(name + "/Library/Preferences");
    return name;
  }();
  static const struct Remover {
    ~Remover() { std::filesystem::remove_all(home); }
  } remover;
  const std::string path =
      home + "/Library/Preferences/com.apple.LaunchServices.QuarantineEventsV2";
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  int instructions = 0;
  (void)originOfQuarantineEvent(home, "event", [&] { return ++instructions > 1000; });
  return 0;
}
