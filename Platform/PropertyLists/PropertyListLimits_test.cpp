#include "Platform/PropertyLists/PropertyListLimits.h"

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/PropertyLists/BinaryPropertyListLayout.h"

namespace platform {
namespace {

enum class Expected { kAccepted, kRefused };

class PropertyListLimitsTest : public testing::TestWithParam<PropertyListFormat> {
 protected:
  // Reads and writes, which must agree: a written list can be read, and a refused one can't be
  // written.
  void expectBoth(const Value& value, Expected expected) {
    const Result<Data> bytes = writePropertyList(value, GetParam());
    if (expected == Expected::kRefused) {
      ASSERT_FALSE(bytes);
      EXPECT_EQ(bytes.error().code, ErrorCode::kExhausted) << bytes.error().context;
      return;
    }
    ASSERT_TRUE(bytes) << bytes.error().context;
    const Result<Value> read = readPropertyList(*bytes, "a");
    ASSERT_TRUE(read) << read.error().context;
    EXPECT_TRUE(*read == value);
  }
};

INSTANTIATE_TEST_SUITE_P(PropertyList, PropertyListLimitsTest,
                         testing::Values(PropertyListFormat::kXml, PropertyListFormat::kBinary),
                         [](const auto& info) {
                           return info.param == PropertyListFormat::kXml ? "Xml" : "Binary";
                         });

Value nested(std::size_t depth, Value innermost) {
  for (std::size_t i = 0; i < depth; ++i) {
    innermost = i % 2 == 0 ? Value(Array{innermost}) : Value(Dictionary{{"k", innermost}});
  }
  return innermost;
}

TEST_P(PropertyListLimitsTest, Depth) {
  expectBoth(nested(kMaxPropertyListDepth - 1, "x"), Expected::kAccepted);
  expectBoth(nested(kMaxPropertyListDepth, "x"), Expected::kAccepted);
  expectBoth(nested(kMaxPropertyListDepth + 1, "x"), Expected::kRefused);
  // An empty collection at the bottom counts, too.
  expectBoth(nested(kMaxPropertyListDepth - 1, Array{}), Expected::kAccepted);
  expectBoth(nested(kMaxPropertyListDepth, Array{}), Expected::kRefused);
  expectBoth(nested(kMaxPropertyListDepth, Dictionary{}), Expected::kRefused);
}

TEST_P(PropertyListLimitsTest, Nodes) {
  const auto list = [](std::size_t nodes) {
    return Value(Array(nodes - 1, Value(true)));  // The array is a node itself.
  };
  const auto keyed = [](std::size_t nodes) {
    return Value(Array{Dictionary{{"k", Array(nodes - 4, Value(true))}}});
  };
  // In our XML so many values would exceed the limit of bytes.
  if (GetParam() == PropertyListFormat::kBinary) {
    expectBoth(list(kMaxPropertyListNodes - 1), Expected::kAccepted);
    expectBoth(list(kMaxPropertyListNodes), Expected::kAccepted);
    expectBoth(keyed(kMaxPropertyListNodes), Expected::kAccepted);
  }
  expectBoth(list(kMaxPropertyListNodes + 1), Expected::kRefused);
  expectBoth(keyed(kMaxPropertyListNodes + 1), Expected::kRefused);
}

std::string xmlArray(std::size_t elements) {
  std::string text = "<plist><array>";
  for (std::size_t i = 0; i < elements; ++i) text += "<true/>";
  return text + "</array></plist>";
}

TEST(PropertyListXmlLimitsTest, NodesRead) {
  EXPECT_TRUE(readPropertyList(xmlArray(kMaxPropertyListNodes - 2), "a"));
  EXPECT_TRUE(readPropertyList(xmlArray(kMaxPropertyListNodes - 1), "a"));
  const auto over = readPropertyList(xmlArray(kMaxPropertyListNodes), "a");
  ASSERT_FALSE(over);
  EXPECT_EQ(over.error().code, ErrorCode::kExhausted);
  // <plist><array> has 14 characters, <true/> seven.
  EXPECT_EQ(over.error().context, "a:1:" + std::to_string(15 + 7 * (kMaxPropertyListNodes - 1)) +
                                      ": more than 1000000 values and keys");
}

TEST(PropertyListXmlLimitsTest, DepthRead) {
  const auto text = [](std::size_t depth) {
    std::string open;
    std::string close;
    for (std::size_t i = 0; i < depth; ++i) {
      open += "<array>";
      close += "</array>";
    }
    return "<plist>\n" + open + close + "</plist>";
  };
  EXPECT_TRUE(readPropertyList(text(kMaxPropertyListDepth - 1), "a"));
  EXPECT_TRUE(readPropertyList(text(kMaxPropertyListDepth), "a"));
  const auto over = readPropertyList(text(kMaxPropertyListDepth + 1), "a");
  ASSERT_FALSE(over);
  EXPECT_EQ(over.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(over.error().context, "a:2:897: more than 128 collections inside one another");
}

TEST(PropertyListXmlLimitsTest, BytesOfATag) {
  const auto text = [](std::size_t size) {
    const std::string tag = "<plist version='1.0'>";
    return "\n" + std::string(tag).insert(6, size - tag.size(), ' ') + "<true/></plist>";
  };
  EXPECT_TRUE(readPropertyList(text(kMaxPropertyListTagBytes - 1), "a"));
  EXPECT_TRUE(readPropertyList(text(kMaxPropertyListTagBytes), "a"));
  const auto over = readPropertyList(text(kMaxPropertyListTagBytes + 1), "a");
  ASSERT_FALSE(over);
  EXPECT_EQ(over.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(over.error().context, "a:2:1: a tag of more than 1024 bytes");
}

// With a parser that compares each attribute with every other one it took minutes, so that the test
// would time out.
TEST(PropertyListXmlLimitsTest, ManyAttributesCostNothing) {
  std::string text = "<plist";
  for (int i = 0; text.size() < kMaxPropertyListBytes / 2; ++i) {
    text += " a" + std::to_string(i) + "=''";
  }
  const auto over = readPropertyList(text + "><true/></plist>", "a");
  ASSERT_FALSE(over);
  EXPECT_EQ(over.error().code, ErrorCode::kExhausted);
}

TEST(PropertyListXmlLimitsTest, BytesRead) {
  const auto text = [](std::size_t size) {
    const std::string head = "<plist><string>";
    const std::string tail = "</string></plist>";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
  };
  EXPECT_TRUE(readPropertyList(text(kMaxPropertyListBytes - 1), "a"));
  EXPECT_TRUE(readPropertyList(text(kMaxPropertyListBytes), "a"));
  const auto over = readPropertyList(text(kMaxPropertyListBytes + 1), "a");
  ASSERT_FALSE(over);
  EXPECT_EQ(over.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(over.error().context, "a: 8388609 bytes, expected at most 8388608");
}

TEST_P(PropertyListLimitsTest, BytesWritten) {
  const auto overhead = writePropertyList("", GetParam());
  ASSERT_TRUE(overhead);
  // In the binary format the count and the offsets grow with the text, too.
  const std::size_t grown = GetParam() == PropertyListFormat::kBinary ? 5 + 3 : 0;
  const std::size_t text = kMaxPropertyListBytes - overhead->size() - grown;
  expectBoth(std::string(text - 1, 'x'), Expected::kAccepted);
  expectBoth(std::string(text, 'x'), Expected::kAccepted);
  expectBoth(std::string(text + 1, 'x'), Expected::kRefused);
}

// Lists that only a hostile or a foreign writer makes, with many references.
class PropertyListSharingLimitsTest : public testing::Test {
 protected:
  static std::string references(std::size_t count, char number) {
    return "\x12" + bigEndian(count, 4) + std::string(count, number);
  }
  static Result<Value> read(std::vector<std::string> objects) {
    const BinaryPropertyListLayout layout{std::move(objects), 0, 4, 1};
    return readPropertyList(layout.bytes(), "a");
  }
  static void expectRefused(const Result<Value>& value, std::string_view why) {
    ASSERT_FALSE(value);
    EXPECT_EQ(value.error().code, ErrorCode::kExhausted);
    EXPECT_NE(value.error().context.find(why), std::string::npos) << value.error().context;
  }
};

TEST_F(PropertyListSharingLimitsTest, Nodes) {
  // The root, ten times an array, and ten times its content.
  constexpr std::size_t kTimes = 10;
  const auto list = [](int more) {
    const std::size_t inside = kMaxPropertyListNodes / kTimes - 2;
    const std::size_t trues =
        kMaxPropertyListNodes - 1 - kTimes * (inside + 1) + static_cast<std::size_t>(more);
    const std::string refs = std::string(kTimes, '\x01') + std::string(trues, '\x02');
    return read({"\xAF\x12" + bigEndian(refs.size(), 4) + refs, "\xAF" + references(inside, '\x02'),
                 "\x09"});
  };
  EXPECT_TRUE(list(-1));
  EXPECT_TRUE(list(0));
  expectRefused(list(1), "more than 1000000 values and keys");
  expectRefused(read({"\xAF" + references(kMaxPropertyListNodes, '\x01'), "\x09"}),
                "more than 1000000 values and keys");
}

// Objects without a reference still cost memory.
TEST_F(PropertyListSharingLimitsTest, Objects) {
  const auto list = [](std::size_t count) {
    const std::string bytes = "bplist00\x09" + std::string(count, '\x08') + std::string(6, '\0') +
                              "\x01\x03" + bigEndian(count, 8) + bigEndian(0, 8) + bigEndian(9, 8);
    return readPropertyList(bytes, "a");
  };
  EXPECT_TRUE(list(kMaxPropertyListNodes - 1));
  EXPECT_TRUE(list(kMaxPropertyListNodes));
  expectRefused(list(kMaxPropertyListNodes + 1), "1000001 objects, expected at most 1000000");
}

TEST_F(PropertyListSharingLimitsTest, Depth) {
  const auto chain = [](std::size_t depth) {
    std::vector<std::string> objects;
    for (std::size_t i = 1; i < depth; ++i) {
      objects.push_back(std::string("\xA1") + static_cast<char>(i));
    }
    objects.push_back("\xA0");
    return objects;
  };
  EXPECT_TRUE(read(chain(kMaxPropertyListDepth - 1)));
  EXPECT_TRUE(read(chain(kMaxPropertyListDepth)));
  expectRefused(read(chain(kMaxPropertyListDepth + 1)), "more than 128 collections");
  // Read first where it is not too deep: the root refers to object 101, down to the bottom, before
  // it refers to the chain that leads there.
  const auto shared = [&chain](std::size_t depth) {
    std::vector<std::string> objects = chain(depth);
    objects[0] = std::string("\xA2\x65\x01");
    return objects;
  };
  EXPECT_TRUE(read(shared(kMaxPropertyListDepth)));
  expectRefused(read(shared(kMaxPropertyListDepth + 1)), "more than 128 collections");
}

TEST_F(PropertyListSharingLimitsTest, Content) {
  constexpr std::size_t kTimes = 16;
  constexpr std::size_t kShare = kMaxPropertyListContentBytes / kTimes;
  const auto withMore = [](const std::string& more) {
    return read({"\xAF\x10\x11" + std::string(kTimes - 1, '\x01') + "\x02\x03",
                 "\x5F\x12" + bigEndian(kShare, 4) + std::string(kShare, 'x'),
                 "\x4F\x12" + bigEndian(kShare - 1, 4) + std::string(kShare - 1, 'y'), more});
  };
  EXPECT_TRUE(withMore("\x50"));
  EXPECT_TRUE(withMore("\x51z"));
  expectRefused(withMore("\x52zz"), "more than 16777216 bytes of strings and data");
}

// Keys are copied into each dictionary, so they are counted before the total is known.
TEST_F(PropertyListSharingLimitsTest, ContentInKeys) {
  constexpr char kTimes = 16;
  constexpr std::size_t kShare = kMaxPropertyListContentBytes / kTimes;
  const auto list = [](std::size_t size) {
    std::vector<std::string> objects(kTimes + 1, "\xD1\x11\x12");
    objects[0] = "\xAF\x10\x10";
    for (char i = 1; i <= kTimes; ++i) objects[0] += i;
    objects.push_back("\x5F\x12" + bigEndian(size, 4) + std::string(size, 'k'));
    objects.push_back("\x09");
    return read(objects);
  };
  EXPECT_TRUE(list(kShare - 1));
  EXPECT_TRUE(list(kShare));
  expectRefused(list(kShare + 1), "more than 16777216 bytes of strings and data");
}

TEST(PropertyListWritingLimitsTest, Content) {
  constexpr std::size_t kTimes = 16;
  constexpr std::size_t kShare = kMaxPropertyListContentBytes / kTimes;
  const auto list = [](std::size_t extra) {
    Array elements(kTimes, Value(std::string(kShare, 'x')));
    elements.back() = std::string(kShare - 1, 'x');
    elements.push_back(std::string(extra, 'y'));
    return writePropertyList(elements, PropertyListFormat::kBinary);
  };
  EXPECT_TRUE(list(0));
  EXPECT_TRUE(list(1));
  ASSERT_FALSE(list(2));
  EXPECT_EQ(list(2).error().code, ErrorCode::kExhausted);
}

}  // namespace
}  // namespace platform
