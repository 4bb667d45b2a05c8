#include "Tools/servicemanagerctl/TarArchive.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

constexpr std::size_t kBlock = 512;

TEST(TarArchive, AFileHasAHeaderAndWholeBlocks) {
  const std::string tar =
      tarOf({{"folder/a", "abc"}, {"b", ""}}, platform::WallTime(std::chrono::seconds(8)));
  ASSERT_EQ(tar.size(), 5 * kBlock);  // two headers, a content, two empty blocks
  EXPECT_STREQ(tar.c_str(), "folder/a");
  EXPECT_STREQ(tar.c_str() + 100, "0000600");
  EXPECT_STREQ(tar.c_str() + 124, "00000000003");
  EXPECT_STREQ(tar.c_str() + 136, "00000000010");
  EXPECT_EQ(tar.substr(257, 8), std::string("ustar\00000", 8));
  EXPECT_EQ(tar.substr(kBlock, 4), std::string("abc\0", 4));
  EXPECT_STREQ(tar.c_str() + 2 * kBlock, "b");
}

TEST(TarArchive, ALongNameIsCut) {
  const std::string tar = tarOf({{std::string(200, 'n'), ""}}, {});
  EXPECT_EQ(std::string(tar.c_str()), std::string(kMaxTarName, 'n'));
}

TEST(TarArchive, GzipGivesTheTextBack) {
  const std::string text(100000, 'x');
  const std::string compressed = gzipped(text);
  ASSERT_FALSE(compressed.empty());
  EXPECT_LT(compressed.size(), text.size() / 100);
  z_stream stream{};
  ASSERT_EQ(::inflateInit2(&stream, 15 + 16), Z_OK);
  std::string back(text.size(), ' ');
  std::string input = compressed;
  stream.next_in = reinterpret_cast<Bytef*>(input.data());
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = reinterpret_cast<Bytef*>(back.data());
  stream.avail_out = static_cast<uInt>(back.size());
  EXPECT_EQ(::inflate(&stream, Z_FINISH), Z_STREAM_END);
  ::inflateEnd(&stream);
  EXPECT_EQ(back, text);
}

}  // namespace
