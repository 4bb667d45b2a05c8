#include "Libraries/Static/Interprocess Communications/VantorDistantObject/TokenComparison.h"

#include <gtest/gtest.h>

namespace {

using platform::Data;

TEST(TokenComparisonTest, EqualMeansEveryByte) {
  EXPECT_TRUE(tokensAreEqual({}, {}));
  EXPECT_TRUE(tokensAreEqual(Data{1, 2, 3}, Data{1, 2, 3}));
  for (std::size_t at = 0; at < 3; ++at) {
    for (int bit = 0; bit < 8; ++bit) {
      Data other{1, 2, 3};
      other[at] = static_cast<std::uint8_t>(other[at] ^ (1 << bit));
      EXPECT_FALSE(tokensAreEqual(Data{1, 2, 3}, other)) << at << " " << bit;
    }
  }
}

TEST(TokenComparisonTest, DifferentSizesAreNeverEqual) {
  EXPECT_FALSE(tokensAreEqual(Data{1, 2, 3}, Data{1, 2}));
  EXPECT_FALSE(tokensAreEqual(Data{1, 2}, Data{1, 2, 3}));
  EXPECT_FALSE(tokensAreEqual({}, Data{0}));
}

}  // namespace
