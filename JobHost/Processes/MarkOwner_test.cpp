#include "JobHost/Processes/MarkOwner.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <elf.h>
#include <gtest/gtest.h>

namespace jobhost {
namespace {

// The auxiliary vector of a program, in words of this type.
template <typename Word>
std::string vectorOf(const std::vector<std::pair<Word, Word>>& entries) {
  std::string vector;
  for (const auto& [type, value] : entries) {
    for (const Word word : {type, value}) {
      char bytes[sizeof word];
      std::memcpy(bytes, &word, sizeof word);
      vector.append(bytes, sizeof bytes);
    }
  }
  return vector;
}

template <typename Word>
void expectThatRightsAreSeen() {
  for (const Word isSecure : {Word{0}, Word{1}}) {
    for (const std::size_t before : {std::size_t{1}, std::size_t{2}}) {
      std::vector<std::pair<Word, Word>> entries(before, {AT_HWCAP, 0xbfebfbff});
      entries.insert(entries.end(), {{AT_SECURE, isSecure}, {AT_PLATFORM, 1}, {AT_NULL, 0}});
      EXPECT_EQ(hasGainedRights(vectorOf(entries)), isSecure != 0);
    }
  }
}

TEST(MarkOwnerTest, RightsThatA64BitProgramGainedAreSeen) {
  expectThatRightsAreSeen<std::uint64_t>();
}

TEST(MarkOwnerTest, RightsThatA32BitProgramGainedAreSeen) {
  expectThatRightsAreSeen<std::uint32_t>();
}

TEST(MarkOwnerTest, AVectorThatDoesNotSayMeansRights) {
  EXPECT_TRUE(hasGainedRights(""));
  EXPECT_TRUE(hasGainedRights(vectorOf<std::uint64_t>({{AT_PAGESZ, 4096}, {AT_NULL, 0}})));
  EXPECT_TRUE(hasGainedRights(vectorOf<std::uint32_t>({{AT_PAGESZ, 4096}, {AT_NULL, 0}})));
}

}  // namespace
}  // namespace jobhost
