#include "Tools/servicemanagerctl/ConfigurationFile.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

using namespace platform;

class ConfigurationFileTest : public testing::Test {
 protected:
  // Writes the value in that form, and reads it again.
  Result<ConfigurationFile> again(const Value& value, FileForm form) {
    const auto content = contentOf(value, form);
    EXPECT_TRUE(content);
    EXPECT_TRUE(writeConfigurationFile(path_, *content));
    return readConfigurationFile(path_);
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_.path("file");
};

TEST_F(ConfigurationFileTest, EachFormIsRecognized) {
  const Value value = Dictionary{{"a", Array{1, "x", true, 1.5}}};
  for (const FileForm form : {FileForm::kXml, FileForm::kBinary, FileForm::kJson}) {
    const auto file = again(value, form);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->form, form);
    EXPECT_EQ(file->value, value);
    EXPECT_EQ(formNamed(nameOf(form)), form);
  }
}

TEST_F(ConfigurationFileTest, AnArrayIsJsonToo) {
  folder_.write("file", " [1]");
  const auto file = readConfigurationFile(path_);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->value, Value(Array{1}));
}

TEST_F(ConfigurationFileTest, AFormThatCantHoldTheValueFails) {
  const auto json = contentOf(Dictionary{{"a", Data{1}}}, FileForm::kJson);
  ASSERT_FALSE(json);
  EXPECT_EQ(json.error().context, "a is data, which JSON can't hold");
  EXPECT_FALSE(contentOf(Value::nullMarker(), FileForm::kXml));
}

TEST_F(ConfigurationFileTest, AReplacedFileKeepsItsModeAndItsLink) {
  namespace fs = std::filesystem;
  folder_.write("file", "{}");
  fs::permissions(path_, fs::perms::owner_read | fs::perms::owner_write);
  const std::string link = folder_.path("link");
  fs::create_symlink("file", link);
  ASSERT_TRUE(writeConfigurationFile(link, "[]"));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(readConfigurationFile(path_)->value, Value(Array{}));
}

TEST_F(ConfigurationFileTest, OnlyARegularFileIsReplaced) {
  namespace fs = std::filesystem;
  ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
  const std::string link = folder_.path("link");
  fs::create_symlink("file", link);
  for (const std::string& path : {path_, link}) {
    const auto written = writeConfigurationFile(path, "{}");
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error().context, path + ": is not a regular file");
  }
  EXPECT_TRUE(fs::is_fifo(path_));
  EXPECT_TRUE(fs::is_symlink(link));
}

TEST_F(ConfigurationFileTest, ALinkToNothingIsAnError) {
  std::filesystem::create_symlink("none", path_);
  EXPECT_FALSE(writeConfigurationFile(path_, "{}"));
  EXPECT_TRUE(std::filesystem::is_symlink(path_));
}

TEST_F(ConfigurationFileTest, AMissingFolderIsAnError) {
  EXPECT_FALSE(writeConfigurationFile(folder_.path("none/file"), "{}"));
  EXPECT_FALSE(readConfigurationFile(folder_.path("none/file")));
}

}  // namespace
