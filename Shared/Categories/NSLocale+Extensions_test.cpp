#include <gtest/gtest.h>

#include "Shared/Categories/NSLocale+Extensions.h"

namespace NSLocale::Extensions {
namespace {

using Languages = std::vector<std::string>;

Languages sorted(Languages languages, const Languages& preferred) {
  return sortLanguagesInPreferredOrder(std::move(languages), preferred);
}

TEST(NSLocaleExtensionsTest, WithoutAPreferredLanguageTheOrderStays) {
  EXPECT_EQ(sorted({"en", "de", "fr"}, {"ja", "it"}), (Languages{"en", "de", "fr"}));
  EXPECT_EQ(sorted({"en", "de"}, {}), (Languages{"en", "de"}));
  EXPECT_EQ(sorted({}, {"en"}), Languages{});
}

TEST(NSLocaleExtensionsTest, OnlyTheMostPreferredOneMoves) {
  EXPECT_EQ(sorted({"en", "de", "fr", "ja"}, {"it", "fr", "de"}),
            (Languages{"fr", "en", "de", "ja"}));
  EXPECT_EQ(sorted({"en", "de"}, {"en", "de"}), (Languages{"en", "de"}));
  EXPECT_EQ(sorted({"en", "de", "fr"}, {"fr", "de", "en"}), (Languages{"fr", "en", "de"}));
}

TEST(NSLocaleExtensionsTest, LanguagesAreComparedExactly) {
  EXPECT_EQ(sorted({"en", "de"}, {"DE", "de-AT", " de"}), (Languages{"en", "de"}));
  EXPECT_EQ(sorted({"en", "de-AT"}, {"de", "de-AT"}), (Languages{"de-AT", "en"}));
}

TEST(NSLocaleExtensionsTest, TheFirstOfEqualLanguagesMoves) {
  EXPECT_EQ(sorted({"en", "de", "fr", "de"}, {"de"}), (Languages{"de", "en", "fr", "de"}));
}

}  // namespace
}  // namespace NSLocale::Extensions
