#pragma once

// Programs in a test's folder, and their state as a verification tells it.

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "JobHost/Processes/ProcessSpawnerFixture_contract.h"
#include "Platform/Linux/Digests/ContentHash.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/VerifiedFile.h"

namespace jobhost {

class VerifiedProgramTest : public ProcessSpawnerTest {
 protected:
  // Without its digest.
  static platform::VerifiedFile stateOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return stateOf(status);
  }

  static platform::VerifiedFile verify(const std::string& path, bool isSettled = true) {
    const platform::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status{};
    EXPECT_EQ(::fstat(file.get(), &status), 0);
    platform::VerifiedFile verified = stateOf(status);
    auto hash = platform::ContentHash::create(EVP_sha256(), path);
    // A file that others write meanwhile may become shorter.
    static_cast<void>(hash->addFrom(file.get(), 0, verified.size));
    verified.isSettled = isSettled;
    verified.digest = hash->finish().value();
    return verified;
  }

  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
  }

  std::string make(const std::string& name, const std::string& content) {
    const std::string path = folder_.write(name, content);
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
    return path;
  }
  // A program that prints its arguments.
  std::string makeProgram(const std::string& name) { return make(name, contentOf("/bin/echo")); }

  JobDefinition jobOf(const std::string& path, const platform::VerifiedFile& verified) {
    JobDefinition job = script("");
    job.program = path;
    job.arguments = {"name", "text"};
    job.verifiedProgram = verified;
    return job;
  }

 private:
  static platform::VerifiedFile stateOf(const struct stat& status) {
    const auto size = static_cast<std::uint64_t>(status.st_size);
    return {.device = status.st_dev,
            .inode = status.st_ino,
            .size = size,
            .changedSeconds = status.st_ctim.tv_sec,
            .changedNanoseconds = static_cast<std::uint32_t>(status.st_ctim.tv_nsec),
            .isSettled = false,
            .digestName = EVP_MD_get0_name(EVP_sha256()),
            .digestedBytes = size,
            .digest = {0},
            .verity = {}};
  }
};

}  // namespace jobhost
