#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Shared/Categories/NSTaskExtensions.h"

namespace {

using NSTaskExtensions::appendData;
using platform::Data;

Data chunkOf(std::string_view text) { return Data(text.begin(), text.end()); }

TEST(AppendDataTest, WithoutATextAChunkOrALimitNothingHappens) {
  std::string text = "abc";
  const Data chunk = chunkOf("d");
  appendData(nullptr, &text, 10);
  appendData(&chunk, nullptr, 10);
  appendData(&chunk, &text, 0);
  EXPECT_EQ(text, "abc");
}

TEST(AppendDataTest, TheLastCharactersStay) {
  const struct {
    const char* text;
    const char* chunk;
    std::size_t limit;
    const char* result;
  } cases[] = {{"", "", 3, ""},
               {"ab", "c", 4, "abc"},
               {"ab", "c", 3, "abc"},
               {"ab", "c", 2, "bc"},
               {"ab", "c", 1, "c"},
               {"abc", "", 2, "bc"},
               {"", "abcdef", 2, "ef"},
               {"\u00e9\u20ac", "\U0001f600x", 3, "\u20ac\U0001f600x"},
               {"\u00e9\u20ac", "\U0001f600x", 4, "\u00e9\u20ac\U0001f600x"},
               {"ab", "\xff", 1, "ab"},
               {"ab", "c\xc3", 9, "ab"}};
  for (const auto& [before, chunk, limit, result] : cases) {
    std::string text = before;
    const Data data = chunkOf(chunk);
    appendData(&data, &text, limit);
    EXPECT_EQ(text, result);
  }
}

TEST(AppendDataTest, AnyNumberOfSmallChunksIsBounded) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) {
    const Data chunk = chunkOf(i % 2 ? "\u20ac" : "x");
    appendData(&chunk, &text, 1000);
    ASSERT_LE(text.size(), 3000u);
  }
  EXPECT_TRUE(text.ends_with("x\u20ac"));
}

}  // namespace
