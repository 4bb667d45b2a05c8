#include "Platform/Linux/SystemFacts/PreferredLanguages.h"

#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using Languages = std::vector<std::string>;

TEST(PreferredLanguagesTest, ALocaleFileNamesLanguages) {
  const struct {
    const char* content;
    Languages languages;
  } cases[] = {{"LANG=de_AT.UTF-8\n", {"de-AT"}},
               {"LANG=\"fr_FR\"", {"fr-FR"}},
               {"LANG='ja'\r\n", {"ja"}},
               {"LANG=sr_RS@latin\n", {"sr-RS"}},
               {"# comment\n\nLC_TIME=it_IT\nLANG=en_GB.UTF-8\nLANGUAGE=\"de:fr:en_GB\"\n",
                {"de", "fr", "en-GB"}},
               {"LANG=C.UTF-8\n", {}},
               {"LANG=POSIX\nLANGUAGE=C::\n", {}},
               {"LANG=\nLANG\n=x\n", {}},
               {"LANG=a\nLANG=b\n", {"b"}},
               {"LANG=\"", {"\""}},
               {"", {}}};
  for (const auto& [content, languages] : cases) {
    EXPECT_EQ(languagesOfLocaleFile(content), languages) << content;
  }
}

class PreferredLanguagesOfRootTest : public testing::Test {
 protected:
  Languages preferred() { return preferredLanguages(configuration_); }

  TemporaryFolder folder_;
  PlatformConfiguration configuration_ = defaultPlatformConfiguration(folder_.path());
};

TEST_F(PreferredLanguagesOfRootTest, TheConfigurationComesFirst) {
  folder_.write("etc/locale.conf", "LANG=de_DE\n");
  configuration_.languages = {"ja", "en"};
  EXPECT_EQ(preferred(), (Languages{"ja", "en"}));
}

TEST_F(PreferredLanguagesOfRootTest, ThenTheLocaleFilesAndThenEnglish) {
  EXPECT_EQ(preferred(), Languages{"en"});
  folder_.write("etc/default/locale", "LANG=fr_FR.UTF-8\n");
  EXPECT_EQ(preferred(), Languages{"fr-FR"});
  folder_.write("etc/locale.conf", "LANG=de_DE.UTF-8\n");
  EXPECT_EQ(preferred(), Languages{"de-DE"});
  folder_.write("etc/locale.conf", "LANG=C.UTF-8\n");
  EXPECT_EQ(preferred(), Languages{"fr-FR"});
}

TEST_F(PreferredLanguagesOfRootTest, ALocaleFileIsBounded) {
  const std::string line = "LANG=de_DE\n";
  folder_.write("etc/locale.conf", line + std::string(4096 - line.size(), '\n'));
  EXPECT_EQ(preferred(), Languages{"de-DE"});
  folder_.write("etc/locale.conf", line + std::string(4097 - line.size(), '\n'));
  EXPECT_EQ(preferred(), Languages{"en"});
}

}  // namespace
}  // namespace platform
