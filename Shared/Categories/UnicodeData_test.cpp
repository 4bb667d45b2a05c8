// The properties of characters and the comparisons, tested against Unicode's own tables.

#include <cstdint>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unicode/utf8.h>

#include "Shared/Categories/CaseInsensitiveSearch.h"
#include "Shared/Categories/NSStringExtensions.h"

namespace {

constexpr char kTables[] = "/usr/share/unicode/";
constexpr UChar32 kLast = 0x10ffff;

std::string utf8(UChar32 character) {
  char bytes[U8_MAX_LENGTH];
  std::int32_t size = 0;
  U8_APPEND_UNSAFE(bytes, size, character);
  return std::string(bytes, static_cast<std::size_t>(size));
}

// The fields between semicolons of every line of a table, without comments and blanks around them.
void eachLine(const std::string& name,
              const std::function<void(const std::vector<std::string>&)>& use) {
  std::ifstream table(kTables + name);
  ASSERT_TRUE(table) << name;
  for (std::string line; std::getline(table, line);) {
    line = line.substr(0, line.find('#'));
    std::vector<std::string> fields;
    std::istringstream parts(line);
    for (std::string field; std::getline(parts, field, ';');) {
      const std::size_t first = field.find_first_not_of(' ');
      fields.push_back(
          first == field.npos ? "" : field.substr(first, field.find_last_not_of(' ') - first + 1));
    }
    if (!fields.empty() && !fields[0].empty()) use(fields);
  }
}

UChar32 number(const std::string& hexadecimal) {
  return static_cast<UChar32>(std::stoul(hexadecimal, nullptr, 16));
}

// The general category of every character that has one.
std::map<UChar32, std::string> categories() {
  std::map<UChar32, std::string> result;
  UChar32 first = -1;  // of a range that two lines give
  eachLine("UnicodeData.txt", [&](const std::vector<std::string>& fields) {
    const UChar32 character = number(fields[0]);
    if (fields[1].ends_with(", First>")) {
      first = character;
      return;
    }
    for (UChar32 c = first >= 0 ? first : character; c <= character; ++c) result[c] = fields[2];
    first = -1;
  });
  return result;
}

TEST(UnicodeDataTest, DigitsAndAlphanumericsMatchTheTable) {
  const auto table = categories();
  ASSERT_GT(table.size(), 100'000u);
  for (UChar32 c = 1; c <= kLast; ++c) {
    if (U_IS_SURROGATE(c)) continue;
    const auto found = table.find(c);
    const std::string category = found == table.end() ? "Cn" : found->second;
    ASSERT_EQ(NSStringExtensions::isDecimalDigits(utf8(c)), category == "Nd") << std::hex << c;
    const bool alphanumeric = category[0] == 'L' || category[0] == 'M' || category[0] == 'N';
    ASSERT_EQ(NSStringExtensions::isAlphaNumeric(utf8(c)), alphanumeric) << std::hex << c;
  }
}

TEST(UnicodeDataTest, WhiteSpaceMatchesTheTable) {
  std::set<UChar32> whiteSpace;
  eachLine("PropList.txt", [&](const std::vector<std::string>& fields) {
    if (fields[1] != "White_Space") return;
    const std::size_t dots = fields[0].find("..");
    const UChar32 last = number(dots == std::string::npos ? fields[0] : fields[0].substr(dots + 2));
    for (UChar32 c = number(fields[0].substr(0, dots)); c <= last; ++c) whiteSpace.insert(c);
  });
  ASSERT_EQ(whiteSpace.size(), 25u);
  for (UChar32 c = 0; c <= kLast; ++c) {
    if (U_IS_SURROGATE(c)) continue;
    ASSERT_EQ(NSStringExtensions::isNilOrWhiteSpace(utf8(c)), whiteSpace.contains(c))
        << std::hex << c;
  }
}

TEST(UnicodeDataTest, EveryCharacterEqualsItsFolding) {
  int compared = 0;
  eachLine("CaseFolding.txt", [&](const std::vector<std::string>& fields) {
    // Simple foldings replace full ones in other implementations, and the Turkish ones apply to no
    // text here.
    if (fields[1] != "C" && fields[1] != "F") return;
    std::string folded;
    std::istringstream characters(fields[2]);
    for (std::string character; characters >> character;) folded += utf8(number(character));
    const std::string original = utf8(number(fields[0]));
    EXPECT_TRUE(CaseInsensitiveSearch::areEqual(original, folded)) << fields[0];
    EXPECT_TRUE(CaseInsensitiveSearch::isPrefix(folded, original + "!")) << fields[0];
    EXPECT_TRUE(CaseInsensitiveSearch::isSuffix(original, "!" + folded)) << fields[0];
    ++compared;
  });
  EXPECT_GT(compared, 1400);
}

// Unicode's samples of the borders of visible characters: a part is found exactly if its end is
// one.
TEST(UnicodeDataTest, PartsEndWhereTheSamplesBreak) {
  const std::string kBreak = "\u00f7";
  int samples = 0;
  eachLine("auxiliary/GraphemeBreakTest.txt", [&](const std::vector<std::string>& fields) {
    std::string text;
    std::vector<std::pair<std::size_t, bool>> places;  // offset, whether it is a break
    std::istringstream marks(fields[0]);
    for (std::string mark, character; marks >> mark;) {
      places.emplace_back(text.size(), mark == kBreak);
      if (marks >> character) text += utf8(number(character));
    }
    for (const auto& [at, isBreak] : places) {
      if (at == 0 || at == text.size()) continue;
      EXPECT_EQ(CaseInsensitiveSearch::isPrefix(text.substr(0, at), text), isBreak)
          << fields[0] << " at " << at;
      EXPECT_EQ(CaseInsensitiveSearch::isSuffix(text.substr(at), text), isBreak)
          << fields[0] << " at " << at;
    }
    ++samples;
  });
  EXPECT_GT(samples, 500);
}

}  // namespace
