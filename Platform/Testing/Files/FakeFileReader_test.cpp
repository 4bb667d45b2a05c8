#include "Platform/Testing/Files/FakeFileReader.h"

#include "Platform/Files/FileReader_contract.h"

namespace platform {
namespace {

class FakeDisk final : public FileReaderDisk {
 public:
  FileReader& reader() override { return reader_; }
  std::string write(const std::string& name, const std::string& content) override {
    reader_.addFile("/disk/" + name, content);
    return "/disk/" + name;
  }
  std::string makeFolder(const std::string& name) override {
    reader_.addFolder("/disk/" + name);
    return "/disk/" + name;
  }
  std::string missing() override { return "/disk/missing"; }

 private:
  FakeFileReader reader_;
};

INSTANTIATE_TEST_SUITE_P(Fake, FileReaderContract,
                         testing::Values([]() -> std::unique_ptr<FileReaderDisk> {
                           return std::make_unique<FakeDisk>();
                         }));

TEST(FakeFileReader, AFileCanBeReadUntilItIsRemoved) {
  FakeFileReader reader;
  reader.addPropertyList("/a.plist", Dictionary{{"k", "v"}});
  EXPECT_EQ(reader.propertyListAtPath("/a.plist").value(), Value(Dictionary{{"k", "v"}}));
  reader.remove("/a.plist");
  EXPECT_FALSE(reader.fileExistsAtPath("/a.plist"));
}

}  // namespace
}  // namespace platform
