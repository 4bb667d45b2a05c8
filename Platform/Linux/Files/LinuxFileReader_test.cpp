#include "Platform/Linux/Files/LinuxFileReader.h"

#include <cerrno>
#include <filesystem>

#include "Platform/Files/FileReader_contract.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

class LinuxDisk final : public FileReaderDisk {
 public:
  FileReader& reader() override { return reader_; }
  std::string write(const std::string& name, const std::string& content) override {
    return folder_.write(name, content);
  }
  std::string makeFolder(const std::string& name) override {
    std::filesystem::create_directory(folder_.path(name));
    return folder_.path(name);
  }
  std::string missing() override { return folder_.path("missing"); }

 private:
  TemporaryFolder folder_;
  LinuxFileReader reader_;
};

INSTANTIATE_TEST_SUITE_P(Linux, FileReaderContract,
                         testing::Values([]() -> std::unique_ptr<FileReaderDisk> {
                           return std::make_unique<LinuxDisk>();
                         }));

TEST(LinuxFileReader, ADanglingLinkDoesNotExist) {
  const TemporaryFolder folder;
  std::filesystem::create_symlink(folder.path("nowhere"), folder.path("link"));
  LinuxFileReader reader;
  EXPECT_FALSE(reader.fileExistsAtPath(folder.path("link")));
}

TEST(LinuxFileReader, AFileThatCannotBeLookedUpCountsAsThere) {
  LinuxFileReader reader;
  withInterceptedSystemCall(
      SYS_access, [](const InterceptedCall& call) { return call.nth == 1 ? EIO : ENOENT; },
      [&] {
        EXPECT_TRUE(reader.fileExistsAtPath("/program"));
        EXPECT_FALSE(reader.fileExistsAtPath("/program"));
      });
}

}  // namespace
}  // namespace platform
