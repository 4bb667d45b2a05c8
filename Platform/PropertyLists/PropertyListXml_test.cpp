#include <cmath>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {
namespace {

std::string plist(std::string_view body) {
  return "<plist version=\"1.0\">\n" + std::string(body) + "\n</plist>\n";
}

Value read(std::string_view text) {
  const Result<Value> value = readPropertyList(text, "Service.plist");
  EXPECT_TRUE(value) << text << "\n" << value.error().context;
  return value.value_or(Value());
}

// Reads `body` in <plist>, on the second line.
Value readBody(std::string_view body) { return read(plist(body)); }

std::string xmlErrorOf(std::string_view text) {
  const Result<Value> value = readPropertyList(text, "Service.plist");
  EXPECT_FALSE(value) << text;
  if (value) return "";
  EXPECT_EQ(value.error().code, ErrorCode::kInvalid);
  return value.error().context;
}

std::string errorOfBody(std::string_view body) { return xmlErrorOf(plist(body)); }

TEST(PropertyListXmlTest, ReadsEveryKindOfValue) {
  const Value value = readBody(
      "<dict><key>s</key><string>text</string><key>i</key><integer>-7</integer>"
      "<key>r</key><real>1.5</real><key>t</key><true/><key>f</key><false/>"
      "<key>d</key><date>2001-01-01T00:00:10Z</date><key>b</key><data>AAEC</data>"
      "<key>a</key><array><integer>1</integer><string/></array><key>e</key><dict/></dict>");
  EXPECT_EQ(value["s"], Value("text"));
  EXPECT_EQ(value["i"].integer(), -7);
  EXPECT_EQ(value["r"].real(), 1.5);
  EXPECT_EQ(value["t"].boolean(), true);
  EXPECT_EQ(value["f"].boolean(), false);
  EXPECT_EQ(value["d"].date()->secondsSinceReferenceDate, 10);
  EXPECT_EQ(*value["b"].data(), (Data{0, 1, 2}));
  EXPECT_EQ(value["a"], Value(Array{1, ""}));
  EXPECT_EQ(value["e"], Value(Dictionary{}));
}

TEST(PropertyListXmlTest, KeepsTheOrderOfADictionary) {
  const Value value = readBody("<dict><key>z</key><true/><key>a</key><true/></dict>");
  EXPECT_EQ(value.dictionary()->begin()->first, "z");
}

TEST(PropertyListXmlTest, AcceptsTheOrdinaryDocumentType) {
  EXPECT_EQ(read("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                 "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n" +
                 plist("<string>x</string>")),
            Value("x"));
  EXPECT_EQ(read("<!DOCTYPE plist []>" + plist("<true/>")), Value(true));
  EXPECT_EQ(read("<!DOCTYPE plist [ <!-- ]> <!ENTITY --> ]>" + plist("<true/>")), Value(true));
  EXPECT_EQ(read("<!DOCTYPE plist SYSTEM \"file:///nowhere.dtd\">" + plist("<true/>")),
            Value(true));
}

TEST(PropertyListXmlTest, CommentsInstructionsAndCharacterDataAreAccepted) {
  EXPECT_EQ(
      readBody("<!-- a --><array><?x y?><string>a<!-- > -->b<![CDATA[<c>]]></string></array>"),
      Value(Array{"ab<c>"}));
  EXPECT_EQ(readBody("<string>&lt;&amp;&gt;&quot;&apos;&#65;&#x42;</string>"), Value("<&>\"'AB"));
}

TEST(PropertyListXmlTest, WhiteSpaceCountsInAStringAndNotAroundANumber) {
  EXPECT_EQ(readBody("<string> a\n</string>"), Value(" a\n"));
  EXPECT_EQ(readBody("<string> </string>"), Value(" "));
  EXPECT_EQ(readBody("<dict><key> k </key><true> </true></dict>")[" k "], Value(true));
  EXPECT_EQ(readBody("<integer>\n\t12 </integer>").integer(), 12);
  EXPECT_EQ(readBody("<date> 2001-01-01T00:00:00Z </date>"), Value(Date{0}));
}

TEST(PropertyListXmlTest, IntegersCoverAllSigned64Bits) {
  EXPECT_EQ(readBody("<integer>9223372036854775807</integer>").integer(), INT64_MAX);
  EXPECT_EQ(readBody("<integer>-9223372036854775808</integer>").integer(), INT64_MIN);
  EXPECT_EQ(readBody("<integer>+5</integer>").integer(), 5);
  EXPECT_EQ(readBody("<integer>0x1F</integer>").integer(), 31);
  EXPECT_EQ(readBody("<integer>-0X10</integer>").integer(), -16);
  EXPECT_EQ(readBody("<integer>007</integer>").integer(), 7);
  constexpr std::string_view kRange =
      " is out of range, expected -9223372036854775808 to 9223372036854775807";
  for (const std::string number : {"9223372036854775808", "-9223372036854775809",
                                   "0x8000000000000000", "99999999999999999999999"}) {
    EXPECT_EQ(errorOfBody("<integer>" + number + "</integer>"),
              "Service.plist:2:10: \"" + number + "\"" + std::string(kRange));
  }
}

TEST(PropertyListXmlTest, AnIntegerWithAnythingElseIsRefused) {
  for (const std::string number :
       {"12abc", "1 2", "1.0", "--1", "+-1", "0x", "0xG", "x", "1_000", "\xD9\xA1"}) {
    EXPECT_EQ(errorOfBody("<integer>" + number + "</integer>"),
              "Service.plist:2:10: \"" + number +
                  "\" is no integer, expected decimal digits, or 0x and hexadecimal digits");
  }
  EXPECT_EQ(errorOfBody("<integer/>"),
            "Service.plist:2:1: no integer, expected decimal digits, or 0x and hexadecimal digits");
  EXPECT_EQ(errorOfBody("<integer>-</integer>"),
            "Service.plist:2:10: \"-\" is no integer, expected decimal digits, or 0x and "
            "hexadecimal digits");
}

TEST(PropertyListXmlTest, RealsHaveThePlatformsSpellings) {
  EXPECT_EQ(readBody("<real>-1.25e2</real>").real(), -125);
  EXPECT_EQ(readBody("<real>12</real>").real(), 12);
  EXPECT_EQ(readBody("<real>.5</real>").real(), 0.5);
  EXPECT_TRUE(std::signbit(*readBody("<real>-0</real>").real()));
  EXPECT_EQ(readBody("<real>inf</real>").real(), INFINITY);
  EXPECT_EQ(readBody("<real>-Infinity</real>").real(), -INFINITY);
  EXPECT_EQ(readBody("<real>+infinity</real>").real(), INFINITY);
  EXPECT_TRUE(std::isnan(*readBody("<real>NaN</real>").real()));
  EXPECT_EQ(readBody("<real>4.9406564584124654e-324</real>").real(), 5e-324);
  for (const std::string number :
       {"", "1,5", "1.5x", "+-1", "e5", "0x1p3", "nan(1)", "infinit", "1e", "--inf"}) {
    const std::string error = errorOfBody("<real>" + number + "</real>");
    EXPECT_NE(error.find("expected a decimal number, nan or infinity"), error.npos) << error;
  }
  for (const std::string number : {"1e309", "-1e309", "1e-400"}) {
    EXPECT_EQ(
        errorOfBody("<real>" + number + "</real>"),
        "Service.plist:2:7: \"" + number + "\" is out of range, expected what 64 bits can hold");
  }
}

TEST(PropertyListXmlTest, DatesMustExistInTheCalendar) {
  EXPECT_EQ(readBody("<date>2026-01-02T03:04:05Z</date>"), Value(Date{789'015'845}));
  EXPECT_EQ(readBody("<date>0001-01-01T00:00:00Z</date>"), Value(Date{-63'113'904'000}));
  EXPECT_EQ(readBody("<date>9999-12-31T23:59:59Z</date>"), Value(Date{252'423'993'599}));
  EXPECT_EQ(readBody("<date>2024-02-29T00:00:00Z</date>"), Value(Date{730'857'600}));
  for (const std::string date :
       {"2026-13-01T00:00:00Z", "2026-00-01T00:00:00Z", "2026-02-30T00:00:00Z",
        "2026-02-29T00:00:00Z", "2026-01-00T00:00:00Z", "2026-01-01T24:00:00Z",
        "2026-01-01T00:60:00Z", "2026-01-01T00:00:60Z", "0000-12-31T23:59:59Z"}) {
    EXPECT_EQ(errorOfBody("<date>" + date + "</date>"),
              "Service.plist:2:7: \"" + date +
                  "\" is out of range, expected a day and time of the years 0001 to 9999");
  }
  for (const std::string date :
       {"yesterday", "2026-01-02", "2026-01-02T03:04:05", "2026-01-02 03:04:05Z",
        "2026-1-2T03:04:05Z", "10000-01-01T00:00:00Z", "2026-01-02T03:04:05.5Z",
        "-001-01-01T00:00:00Z"}) {
    EXPECT_EQ(
        errorOfBody("<date>" + date + "</date>"),
        "Service.plist:2:7: \"" + date + "\" is no date, expected the form 2026-01-02T03:04:05Z");
  }
}

TEST(PropertyListXmlTest, DataIsBase64WithWhiteSpaceAnywhere) {
  EXPECT_EQ(readBody("<data/>"), Value(Data{}));
  EXPECT_EQ(readBody("<data>\n\tAA\n\tEC\n</data>"), Value(Data{0, 1, 2}));
  EXPECT_EQ(readBody("<data>/w==</data>"), Value(Data{0xFF}));
  EXPECT_EQ(readBody("<data>//8=</data>"), Value(Data{0xFF, 0xFF}));
  for (const std::string base64 : {"A", "AA", "AAA", "AA=", "AAAA=", "====", "A===", "AA==AA==",
                                   "AAE-", "AAEC!", "/x==", "//9=", "AA=A"}) {
    EXPECT_EQ(errorOfBody("<data>" + base64 + "</data>"),
              "Service.plist:2:7: \"" + base64 +
                  "\" is no base64, expected groups of four of A-Z a-z 0-9 + / and = at the end");
  }
}

TEST(PropertyListXmlTest, ANulByteIsRefused) {
  using namespace std::string_view_literals;
  EXPECT_EQ(errorOfBody("<string>a\0b</string>"sv),
            "Service.plist:2:10: a NUL character, expected well-formed XML");
  // A parser could take these four bytes for UCS-4.
  EXPECT_EQ(xmlErrorOf("<\0\0\0plist>"sv),
            "Service.plist:1:2: a NUL character, expected well-formed XML");
}

TEST(PropertyListXmlTest, ADocumentTypeThatDeclaresAnythingIsRefused) {
  constexpr std::string_view kRefusal =
      "Service.plist:2:2: the document type declares something of its own, expected none or only "
      "the public one";
  for (const std::string subset :
       {"<!ENTITY a \"b\">", "<!ELEMENT plist ANY>", "<!ATTLIST plist x CDATA \"1\">",
        "<!ENTITY % p \"q\">", "<!NOTATION n SYSTEM \"x\">", "<?x y?>", "%p;",
        "<!-- c --><!ENTITY a \"b\">", "<!ENTITY a SYSTEM \"file:///x\">"}) {
    EXPECT_EQ(xmlErrorOf("<!-- c -->\n <!DOCTYPE plist [" + subset + "]>\n" + plist("<true/>")),
              kRefusal)
        << subset;
  }
  EXPECT_EQ(xmlErrorOf("<!DOCTYPE html>\n" + plist("<true/>")),
            "Service.plist:1:1: document type html, expected plist");
}

TEST(PropertyListXmlTest, ExponentialEntitiesCostNothing) {
  std::string text = "<!DOCTYPE plist [<!ENTITY a0 \"aaaaaaaaaa\">";
  for (int i = 1; i < 30; ++i) {
    text += "<!ENTITY a" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) text += "&a" + std::to_string(i - 1) + ";";
    text += "\">";
  }
  const std::string error = xmlErrorOf(text + "]><plist version=\"&a29;\"><string>&a29;</string>");
  EXPECT_EQ(error.substr(0, 18), "Service.plist:1:1:") << error;
}

TEST(PropertyListXmlTest, AnEntityInAnAttributeIsAlwaysRefused) {
  EXPECT_EQ(xmlErrorOf("<!DOCTYPE plist SYSTEM \"x\">\n<plist version=\"&v;1.0\"><true/></plist>"),
            "Service.plist:2:17: entity &v;, expected none but &amp; &lt; &gt; &quot; &apos; and "
            "character references");
  EXPECT_EQ(xmlErrorOf("<!DOCTYPE plist SYSTEM \"x\">\n" + plist("<string>&v;</string>")),
            "Service.plist:3:9: entity &v;, expected none but &amp; &lt; &gt; &quot; &apos; and "
            "character references");
}

TEST(PropertyListXmlTest, PlistHasNoAttributeButItsVersion) {
  EXPECT_EQ(read("<plist><true/></plist>"), Value(true));
  EXPECT_EQ(xmlErrorOf("<plist version=\"2.0\"><true/></plist>"),
            "Service.plist:1:1: <plist> has version \"2.0\", expected \"1.0\"");
  EXPECT_EQ(xmlErrorOf("<plist version=\"1.0\" xml:space=\"default\"><true/></plist>"),
            "Service.plist:1:1: <plist> has an attribute other than version, expected none");
  EXPECT_EQ(xmlErrorOf("<plist xmlns:x=\"urn:x\"><true/></plist>"),
            "Service.plist:1:1: <plist> has an attribute other than version, expected none");
  EXPECT_EQ(xmlErrorOf("<dict/>"), "Service.plist:1:1: <dict>, expected <plist>");
}

TEST(PropertyListXmlTest, ContentAfterTheListIsRefused) {
  EXPECT_EQ(read("<plist><true/></plist>\n<!-- end -->\n"), Value(true));
  EXPECT_EQ(xmlErrorOf("<plist><true/></plist>\n<plist/>"),
            "Service.plist:2:1: content after </plist>, expected the end of the file");
  EXPECT_EQ(xmlErrorOf("<plist><true/></plist>\nx"),
            "Service.plist:2:1: content after </plist>, expected the end of the file");
}

TEST(PropertyListXmlTest, ATruncatedFileSaysWhatItEndsInside) {
  EXPECT_EQ(xmlErrorOf(""), "Service.plist:1:1: the file is empty, expected a property list");
  EXPECT_EQ(xmlErrorOf(" \n"), "Service.plist:2:1: the file is empty, expected a property list");
  EXPECT_EQ(xmlErrorOf("<!-- c -->"), "Service.plist:1:11: the file ends here, expected <plist>");
  EXPECT_EQ(xmlErrorOf("<plist>\n <dict>\n  <key>a</key>\n"),
            "Service.plist:4:1: the file ends inside <dict> of 2:2, expected </dict>");
  EXPECT_EQ(xmlErrorOf("<plist>\n <string>ab"),
            "Service.plist:2:12: the file ends inside <string> of 2:2, expected </string>");
  EXPECT_EQ(xmlErrorOf("<plist>\n <stri"),
            "Service.plist:2:7: the file ends inside what begins at 2:2, expected the rest of it");
}

TEST(PropertyListXmlTest, AFileCutAnywhereIsRefusedAtItsEnd) {
  const std::string whole =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
      "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
      "<plist version=\"1.0\">\n<dict>\n\t<key>a</key>\n\t<array><true/><!-- c -->"
      "<string>x &amp; <![CDATA[y]]></string></array>\n</dict>\n</plist>";
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const std::string error = xmlErrorOf(std::string_view(whole).substr(0, size));
    EXPECT_NE(error.find("the file "), error.npos) << size << ": " << error;
  }
}

TEST(PropertyListXmlTest, ByteOrderMarksAndUtf16AreUnderstood) {
  const std::u16string text = u"<plist><string>\u00E9\U0001F600</string></plist>";
  const std::string expected = "\xC3\xA9\xF0\x9F\x98\x80";
  const auto encode = [&text](bool bigEndian, bool mark) {
    std::string bytes;
    const auto add = [&](char16_t unit) {
      const char high = static_cast<char>(unit >> 8);
      const char low = static_cast<char>(unit & 0xFF);
      bytes += bigEndian ? std::string{high, low} : std::string{low, high};
    };
    if (mark) add(u'\uFEFF');
    if (!mark)
      for (const char16_t unit : std::u16string(u"<?xml version='1.0'?>")) add(unit);
    for (const char16_t unit : text) add(unit);
    return bytes;
  };
  for (const bool bigEndian : {false, true}) {
    for (const bool mark : {false, true}) {
      EXPECT_EQ(read(encode(bigEndian, mark)), Value(expected));
    }
  }
  EXPECT_EQ(read("\xEF\xBB\xBF<plist><true/></plist>"), Value(true));
  EXPECT_EQ(xmlErrorOf("\xEF\xBB\xBF<plist><x/></plist>").substr(0, 18), "Service.plist:1:8:");
  std::string halved = encode(true, true);
  EXPECT_EQ(xmlErrorOf(halved.substr(0, halved.size() - 1)),
            "Service.plist: offset " + std::to_string(halved.size() - 2) + ": ill-formed UTF-16");
}

TEST(PropertyListXmlTest, OtherEncodingsAreRefused) {
  EXPECT_EQ(read("<?xml version='1.0' encoding='utf-8'?>" + plist("<true/>")), Value(true));
  EXPECT_EQ(xmlErrorOf("<?xml version='1.0' encoding='ISO-8859-1'?>" + plist("<true/>")),
            "Service.plist:1:1: encoding \"ISO-8859-1\", expected UTF-8, or UTF-16 with a byte "
            "order mark");
}

TEST(PropertyListXmlTest, OtherFormatsAreNamed) {
  constexpr std::string_view kExpected = ", expected an XML or binary property list";
  const auto expected = [kExpected](std::string_view place, std::string_view what) {
    return std::string(place) + std::string(what) + std::string(kExpected);
  };
  for (const char* json : {"{\"Label\": \"a\"}", "[1, 2]", "{", "[]", "{}"}) {
    EXPECT_EQ(xmlErrorOf(json), expected("Service.plist:1:1: ", "a text that looks like JSON"));
  }
  for (const char* old : {"\n{ Label = a; }", "\n( a, b )", "\n{ Label = ( \"a:b\" ); }"}) {
    EXPECT_EQ(xmlErrorOf(old),
              expected("Service.plist:2:1: ", "a property list in the old text format"));
  }
  EXPECT_EQ(xmlErrorOf("  Label"), expected("Service.plist:1:3: ", "a text that is no XML"));
}

TEST(PropertyListXmlTest, APlaceFarBeforeTheEndIsRight) {
  const std::string rest(60'000, '\n');
  EXPECT_EQ(errorOfBody("<string>\n &</string>" + rest),
            "Service.plist:3:2: \"&\" is no reference, expected &amp; for the character &");
  EXPECT_EQ(errorOfBody("<array></dict>" + rest).substr(0, 19), "Service.plist:2:8: ");
}

// A parser that went on after the first error needed half a minute for each, so that the test would
// time out.
TEST(PropertyListXmlTest, RepeatedErrorsCostNothing) {
  constexpr std::size_t kBytes = 8'000'000;
  EXPECT_EQ(errorOfBody("<!--" + std::string(kBytes, '-') + "-->").substr(0, 19),
            "Service.plist:2:5: ");
  EXPECT_EQ(errorOfBody("<string>" + std::string(kBytes, '&')).substr(0, 19),
            "Service.plist:2:9: ");
  std::string brackets = "<string>";
  while (brackets.size() < kBytes) brackets += "]]>";
  EXPECT_EQ(errorOfBody(brackets).substr(0, 19), "Service.plist:2:9: ");
}

TEST(PropertyListXmlTest, PlacesAreRightFarBeyondTheFirstBuffer) {
  std::string body = "<array>\n";
  for (int i = 0; i < 5000; ++i)
    body += "\t<string>caf\xC3\xA9 <!-- <x> --> " + std::to_string(i) + "</string>\n";
  EXPECT_EQ(errorOfBody(body + "\t<oops/></array>").substr(0, 21), "Service.plist:5003:2:");
  EXPECT_EQ(errorOfBody(body + "\t<string>&</string></array>").substr(0, 22),
            "Service.plist:5003:10:");
  EXPECT_EQ(errorOfBody(body + "<integer>\n\xC3\xA9</integer></array>").substr(0, 21),
            "Service.plist:5004:1:");
}

}  // namespace
}  // namespace platform
