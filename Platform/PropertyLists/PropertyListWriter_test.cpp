#include <atomic>
#include <cmath>
#include <thread>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/PropertyLists/RandomPropertyList.h"

namespace platform {
namespace {

using namespace std::string_literals;

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

std::string document(std::string_view body) {
  std::string text;
  text.append(kHeader).append(body).append("</plist>\n");
  return text;
}

std::string xml(const Value& value) {
  const Result<Data> bytes = writePropertyList(value, PropertyListFormat::kXml);
  EXPECT_TRUE(bytes) << bytes.error().context;
  return bytes ? std::string(bytes->begin(), bytes->end()) : "";
}

std::string writingErrorOf(const Value& value, PropertyListFormat format) {
  const Result<Data> bytes = writePropertyList(value, format);
  EXPECT_FALSE(bytes);
  if (bytes) return "";
  EXPECT_EQ(bytes.error().code, ErrorCode::kInvalid);
  return bytes.error().context;
}

void expectErrorInBoth(const Value& value, std::string_view error) {
  EXPECT_EQ(writingErrorOf(value, PropertyListFormat::kXml), error);
  EXPECT_EQ(writingErrorOf(value, PropertyListFormat::kBinary), error);
}

Value inside(Value value) {
  return Dictionary{{"Services", Dictionary{{"com.x", Array{"a", 1, std::move(value)}}}}};
}

TEST(PropertyListWriterTest, XmlHasTheLayoutOfThePlatformsTools) {
  const Value value = Dictionary{
      {"Label", "com.x <&> \"y\""},
      {"Args", Array{1, -2.5, true, false, Date{0}, Array{}, Dictionary{}, ""}},
      {"Blob", Data(60, 0)},
      {"Empty", Data{}},
      {"", 1.0},
  };
  EXPECT_EQ(xml(value),
            document("<dict>\n"
                     "\t<key>Label</key>\n"
                     "\t<string>com.x &lt;&amp;&gt; \"y\"</string>\n"
                     "\t<key>Args</key>\n"
                     "\t<array>\n"
                     "\t\t<integer>1</integer>\n"
                     "\t\t<real>-2.5</real>\n"
                     "\t\t<true/>\n"
                     "\t\t<false/>\n"
                     "\t\t<date>2001-01-01T00:00:00Z</date>\n"
                     "\t\t<array/>\n"
                     "\t\t<dict/>\n"
                     "\t\t<string></string>\n"
                     "\t</array>\n"
                     "\t<key>Blob</key>\n"
                     "\t<data>\n"
                     "\tAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA\n"
                     "\tAAAAAAAAAAAA\n"
                     "\t</data>\n"
                     "\t<key>Empty</key>\n"
                     "\t<data>\n"
                     "\t</data>\n"
                     "\t<key></key>\n"
                     "\t<real>1</real>\n"
                     "</dict>\n"));
}

TEST(PropertyListWriterTest, XmlRealsAndDatesHaveTextsThatReadBack) {
  EXPECT_EQ(xml(0.1), document("<real>0.1</real>\n"));
  EXPECT_EQ(xml(INFINITY), document("<real>+infinity</real>\n"));
  EXPECT_EQ(xml(-INFINITY), document("<real>-infinity</real>\n"));
  EXPECT_EQ(xml(NAN), document("<real>nan</real>\n"));
  EXPECT_EQ(xml(Date{-63'113'904'000}), document("<date>0001-01-01T00:00:00Z</date>\n"));
  EXPECT_EQ(xml(Date{252'423'993'599.9}), document("<date>9999-12-31T23:59:59Z</date>\n"));
  EXPECT_EQ(xml(Date{-0.5}), document("<date>2000-12-31T23:59:59Z</date>\n"));
}

TEST(PropertyListWriterTest, BinaryUsesOneObjectForEqualScalarsOfOneType) {
  const Value value = Array{"a", "a", 1, true, 1.0, 1, Dictionary{{"a", "a"}}};
  const std::string expected =
      "bplist00"
      "\xA7\x01\x01\x02\x03\x04\x02\x05"
      "\x51\x61"
      "\x10\x01"
      "\x09"
      "\x23\x3F\xF0\x00\x00\x00\x00\x00\x00"
      "\xD1\x01\x01"
      "\x08\x10\x12\x14\x15\x1E"
      "\x00\x00\x00\x00\x00\x00\x01\x01"
      "\x00\x00\x00\x00\x00\x00\x00\x06"
      "\x00\x00\x00\x00\x00\x00\x00\x00"
      "\x00\x00\x00\x00\x00\x00\x00\x21"s;
  EXPECT_EQ(writePropertyList(value, PropertyListFormat::kBinary).value(),
            Data(expected.begin(), expected.end()));
}

TEST(PropertyListWriterTest, AnUnwritableValueIsAnErrorWithItsKeyPath) {
  class Remote final : public RemoteObject {
   public:
    std::string_view className() const override { return "Remote"; }
    bool conformsToProtocol(std::string_view) const override { return false; }
  };
  expectErrorInBoth(Value(), "the property list's root: nil, expected a value");
  expectErrorInBoth(inside(Value(std::make_shared<const Remote>())),
                    "Services/com.x/2: a remote object, which no property list can hold");
  expectErrorInBoth(inside("a\xFF"), "Services/com.x/2: a string with ill-formed UTF-8 at byte 1");
  expectErrorInBoth(inside(Dictionary{{"k\xED\xA0\x80", 1}}),
                    "Services/com.x/2/k\\xed\\xa0\\x80: a key with ill-formed UTF-8 at byte 1");
  expectErrorInBoth(inside(Date{252'423'993'600}),
                    "Services/com.x/2: a date 252423993600 s from 2001, expected one of the years "
                    "1 to 9999");
  expectErrorInBoth(
      inside(Date{NAN}),
      "Services/com.x/2: a date nan s from 2001, expected one of the years 1 to 9999");
}

TEST(PropertyListWriterTest, AValueThatOnlyXmlExcludesIsAnErrorOnlyThere) {
  for (const auto& [value, error] : std::initializer_list<std::pair<Value, const char*>>{
           {Value::nullMarker(),
            "Services/com.x/2: the null marker, which XML property lists can't hold"},
           {"a\0"s, "Services/com.x/2: a string with a character at byte 1 that XML excludes"},
           {"\x1B", "Services/com.x/2: a string with a character at byte 0 that XML excludes"},
           {"\xEF\xBF\xBE",
            "Services/com.x/2: a string with a character at byte 0 that XML "
            "excludes"},
           {Dictionary{{"\x01", 1}},
            "Services/com.x/2/\\x01: a key with a character at byte 0 that XML excludes"}}) {
    EXPECT_EQ(writingErrorOf(inside(value), PropertyListFormat::kXml), error);
    const auto bytes = writePropertyList(inside(value), PropertyListFormat::kBinary);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(readPropertyList(*bytes, "a"), inside(value));
  }
}

TEST(PropertyListWriterTest, WrittenValuesAreReadBackExactly) {
  std::mt19937 random(20260102);
  for (int i = 0; i < 1000; ++i) {
    const Value forXml = randomPropertyList(random, {});
    const auto text = writePropertyList(forXml, PropertyListFormat::kXml);
    ASSERT_TRUE(text) << text.error().context;
    const auto fromXml = readPropertyList(*text, "a");
    ASSERT_TRUE(fromXml) << fromXml.error().context;
    ASSERT_EQ(canonicalText(*fromXml), canonicalText(forXml));

    const Value forBinary = randomPropertyList(
        random, {.nullMarkers = true, .fractionalDates = true, .controlCharacters = true});
    const auto bytes = writePropertyList(forBinary, PropertyListFormat::kBinary);
    ASSERT_TRUE(bytes) << bytes.error().context;
    const auto fromBinary = readPropertyList(*bytes, "a");
    ASSERT_TRUE(fromBinary) << fromBinary.error().context;
    ASSERT_EQ(canonicalText(*fromBinary), canonicalText(forBinary));
    ASSERT_EQ(*writePropertyList(*fromBinary, PropertyListFormat::kBinary), *bytes);
  }
}

TEST(PropertyListThreadsTest, AnyThreadMayReadAndWriteAtAnyTime) {
  std::mt19937 random(5);
  const Value value = randomPropertyList(random, {});
  const Data xml = *writePropertyList(value, PropertyListFormat::kXml);
  const Data binary = *writePropertyList(value, PropertyListFormat::kBinary);
  std::atomic<int> right = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        for (int round = 0; round < 20; ++round) {
          const auto fromXml = readPropertyList(xml, "a");
          const auto fromBinary = readPropertyList(binary, "a");
          right += fromXml && *writePropertyList(*fromXml, PropertyListFormat::kBinary) == binary;
          right += fromBinary && *writePropertyList(*fromBinary, PropertyListFormat::kXml) == xml;
          right += !readPropertyList("<plist>", "a");
        }
      });
    }
  }
  EXPECT_EQ(right, 4 * 20 * 3);
}

}  // namespace
}  // namespace platform
