// Each kind of malformed content of a property list, and where it is reported.

#include <string>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {
namespace {

struct Malformed {
  const char* name;
  const char* body;  // starts on line 2
  const char* error;
};

class MalformedXmlTest : public testing::TestWithParam<Malformed> {};

TEST_P(MalformedXmlTest, IsRefusedWithLineColumnAndExpectation) {
  const std::string text =
      "<plist version=\"1.0\">\n" + std::string(GetParam().body) + "\n</plist>\n";
  const Result<Value> value = readPropertyList(text, "Service.plist");
  ASSERT_FALSE(value) << text;
  EXPECT_EQ(value.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(value.error().context, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    PropertyList, MalformedXmlTest,
    testing::Values(
        Malformed{"KeyWithoutValueAtTheEnd", "<dict>\n  <key>Program</key>\n</dict>",
                  "Service.plist:3:3: <key> \"Program\" has no value, expected one before </dict>"},
        Malformed{"KeyWithoutValueBeforeAnother",
                  "<dict>\n\t<key>Program</key>\n\t<key>Label</key><true/></dict>",
                  "Service.plist:3:2: <key> \"Program\" has no value, expected one before the next "
                  "<key>"},
        Malformed{"ValueWithoutKey", "<dict><key>a</key><true/>\n  <false/></dict>",
                  "Service.plist:3:3: <false> without a key, expected <key> or </dict>"},
        Malformed{"DuplicateKey",
                  "<dict>\n<key>a</key><true/>\n<!-- <x> --> <key>a</key><false/></dict>",
                  "Service.plist:4:14: <key> \"a\" occurs twice in its <dict>, expected once"},
        Malformed{"KeyInArray", "<array><key>a</key></array>",
                  "Service.plist:2:8: <key> inside <array>, expected a value or </array>"},
        Malformed{"KeyAsRoot", "<key>a</key>",
                  "Service.plist:2:1: <key> outside <dict>, expected a value"},
        Malformed{"UnknownElement", "<array>\n<set/></array>",
                  "Service.plist:3:1: unexpected element <set>, expected dict, array, string, "
                  "integer, real, true, false, date, data or key"},
        Malformed{"ElementInOtherCase", "<String>a</String>",
                  "Service.plist:2:1: unexpected element <String>, expected dict, array, string, "
                  "integer, real, true, false, date, data or key"},
        Malformed{"PlistInPlist", "<plist/>",
                  "Service.plist:2:1: unexpected element <plist>, expected dict, array, string, "
                  "integer, real, true, false, date, data or key"},
        Malformed{"ElementInsideString", "<string>a<true/></string>",
                  "Service.plist:2:10: <true> inside <string>, expected </string>"},
        Malformed{"Attribute", "<array><string id=\"1\">a</string></array>",
                  "Service.plist:2:8: <string> has an attribute, expected none"},
        Malformed{"VersionOfAnotherElement", "<array version=\"1.0\"/>",
                  "Service.plist:2:1: <array> has an attribute, expected none"},
        Malformed{"Namespace", "<array xmlns=\"urn:x\"/>",
                  "Service.plist:2:1: <array> has an attribute, expected none"},
        Malformed{"TextBetweenElements", "<array><true/>\n <!-- c --> stray\n<true/></array>",
                  "Service.plist:3:13: text \"stray\" inside <array>, expected an element"},
        Malformed{"TextInDict", "<dict>x</dict>",
                  "Service.plist:2:7: text \"x\" inside <dict>, expected an element"},
        Malformed{"TextBesideTheRoot", "<true/>x",
                  "Service.plist:2:8: text \"x\" inside <plist>, expected an element"},
        Malformed{"TextInTrue", "<true>yes</true>",
                  "Service.plist:2:7: text \"yes\" inside <true>, expected none"},
        Malformed{"TwoRoots", "<true/>\n<false/>",
                  "Service.plist:3:1: <false> after the value, expected </plist>"},
        Malformed{"NoRoot", "<!-- nothing -->",
                  "Service.plist:1:1: <plist> holds no value, expected one"},
        Malformed{"MismatchedTags", "<array><true/></dict>",
                  "Service.plist:2:15: </dict> inside <array> of 2:1, expected </array>"},
        Malformed{"UndeclaredEntity", "<string>\xC3\xA9&nbsp;</string>",
                  "Service.plist:2:10: entity &nbsp;, expected none but &amp; &lt; &gt; &quot; "
                  "&apos; and character references"},
        Malformed{"ControlCharacter", "<string>a\x01</string>",
                  "Service.plist:2:10: unexpected character \"\\x01\", expected well-formed XML"},
        Malformed{"CharacterReferenceToNul", "<string>a&#0;</string>",
                  "Service.plist:2:10: &#0; stands for no character, expected well-formed XML"},
        Malformed{"BareAmpersand", "<string>a & b</string>",
                  "Service.plist:2:11: \"&\" is no reference, expected &amp; for the character &"},
        Malformed{
            "ReferenceWithoutEnd", "<string>a&amp b</string>",
            "Service.plist:2:10: \"&amp\" is no reference, expected &amp; for the character &"},
        Malformed{"HyphensInAComment", "<!-- a -- b --><true/>",
                  "Service.plist:2:8: \"--\" inside a comment, expected none before its end"},
        Malformed{"EndOfCharacterDataInAText", "<string>a]]></string>",
                  "Service.plist:2:10: \"]]>\" in a text, expected ]]&gt;"},
        Malformed{"TagWithoutItsEnd", "<array><true <false/></array>",
                  "Service.plist:2:14: unexpected character \"<\", expected well-formed XML"},
        Malformed{"TextInPieces", "<array>\n&#32;\n <![CDATA[ ]]> stray</array>",
                  "Service.plist:4:16: text \"stray\" inside <array>, expected an element"},
        Malformed{"IllFormedUtf8", "<string>\xC3\xA9\xFF</string>",
                  "Service.plist:2:10: ill-formed UTF-8 (byte 0xff)"},
        Malformed{"OverlongUtf8", "<string>\xC1\x81</string>",
                  "Service.plist:2:9: ill-formed UTF-8 (byte 0xc1)"},
        Malformed{"SurrogateInUtf8", "<string>\xED\xA0\x80</string>",
                  "Service.plist:2:9: ill-formed UTF-8 (byte 0xed)"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace platform
