#include "Platform/Values/VerifiedFile.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

VerifiedFile someFile() {
  return {.device = 65'024,
          .inode = ~std::uint64_t{0},
          .size = 4096,
          .changedSeconds = -1,
          .changedNanoseconds = 999'999'999,
          .isSettled = true,
          .digestName = "SHA2-256",
          .digestedBytes = 4000,
          .digest = {0x00, 0x9f, 0xff},
          .verity = {}};
}

TEST(VerifiedFileTest, TheTextHoldsTheWholeFile) {
  VerifiedFile file = someFile();
  EXPECT_EQ(textOfVerifiedFile(file),
            "65024 18446744073709551615 4096 -1 999999999 settled SHA2-256 4000 009fff -");
  EXPECT_EQ(verifiedFileIn(textOfVerifiedFile(file)), file);
  file.isSettled = false;
  file.verity = {0x01};
  EXPECT_EQ(verifiedFileIn(textOfVerifiedFile(file)), file);
}

TEST(VerifiedFileTest, OtherTextsAreNoFile) {
  for (const char* text : {
           "", " ",
           "1 2 3 4 5 settled SHA2-256 3 00",         // a word is missing
           "1 2 3 4 5 settled SHA2-256 3 00 - ",      // an empty word behind it
           "1 2 3 4 5 settled SHA2-256 3 00 - more",  // too many words
           "x 2 3 4 5 settled SHA2-256 3 00 -",       // no number
           "1 -2 3 4 5 settled SHA2-256 3 00 -",      // no inode
           "1 2 3 4 5 perhaps SHA2-256 3 00 -",
           "1 2 3 4 5 settled SHA2-256 4 00 -",  // more signed than there is
           "1 2 3 4 5 settled SHA2-256 3 - -",   // no digest
           "1 2 3 4 5 settled SHA2-256 3 0 -",   // half a byte
           "1 2 3 4 5 settled SHA2-256 3 0G -",
           "1 2 3 4 5 settled  3 00 -",  // no name
       }) {
    EXPECT_FALSE(verifiedFileIn(text)) << text;
  }
  const std::string many(2 * 65, '0');
  EXPECT_FALSE(verifiedFileIn("1 2 3 4 5 settled SHA2-256 3 " + many + " -"));
}

}  // namespace
}  // namespace platform
