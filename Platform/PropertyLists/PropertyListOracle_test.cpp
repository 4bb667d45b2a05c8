// Compares our readers and writers with two others: Python's plistlib and libplist.

#include <memory>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/PropertyLists/BinaryPropertyListLayout.h"
#include "Platform/Testing/PropertyLists/PythonPropertyLists.h"
#include "Platform/Testing/PropertyLists/RandomPropertyList.h"

namespace platform {
namespace {

constexpr int kCases = 500;

Data written(const Value& value, PropertyListFormat format) {
  const Result<Data> bytes = writePropertyList(value, format);
  EXPECT_TRUE(bytes) << bytes.error().context;
  return bytes.value_or(Data());
}

// The value that we read, in a form for comparison.
std::string readByUs(const Data& bytes) {
  const Result<Value> value = readPropertyList(bytes, "a");
  return value ? canonicalText(*value) : "!" + value.error().context;
}

std::string shown(const Data& bytes) { return std::string(bytes.begin(), bytes.end()); }

// --- plistlib ------------------------------------------------------------------------------------

TEST(PropertyListPythonTest, ReadsOurListsAndWritesListsForUs) {
  std::mt19937 random(1);
  std::vector<Value> values;
  std::vector<Data> lists;
  for (int i = 0; i < kCases; ++i) {
    values.push_back(randomPropertyList(random, {.carriageReturns = false}));
    lists.push_back(written(values.back(), PropertyListFormat::kXml));
    lists.push_back(written(values.back(), PropertyListFormat::kBinary));
  }
  const auto answers = readWithPython(lists);
  ASSERT_TRUE(answers) << "python3 is needed";
  for (std::size_t i = 0; i < lists.size(); ++i) {
    const std::string expected = canonicalText(values[i / 2]);
    const PythonPropertyList& answer = (*answers)[i];
    ASSERT_EQ(answer.canonical, expected) << shown(lists[i]);
    ASSERT_EQ(readByUs(answer.xml), expected) << shown(answer.xml);
    ASSERT_EQ(readByUs(answer.binary), expected);
  }
}

// Without reals: it writes "1.0" where we write "1", and treats -0.0 and 0.0 as one object.
TEST(PropertyListPythonTest, WritesTheSameBytes) {
  std::mt19937 random(2);
  std::vector<Data> lists;
  std::vector<Data> binaries;
  while (lists.size() < kCases) {
    const Value value =
        randomPropertyList(random, {.specialReals = false, .carriageReturns = false});
    const Data xml = written(value, PropertyListFormat::kXml);
    if (shown(xml).find("<real>") != std::string::npos) continue;
    lists.push_back(xml);
    binaries.push_back(written(value, PropertyListFormat::kBinary));
  }
  const auto answers = readWithPython(lists);
  ASSERT_TRUE(answers) << "python3 is needed";
  for (std::size_t i = 0; i < lists.size(); ++i) {
    ASSERT_EQ(shown((*answers)[i].xml), shown(lists[i]));
    ASSERT_EQ((*answers)[i].binary, binaries[i]) << shown(lists[i]);
  }
}

TEST(PropertyListPythonTest, AgreesOnValuesOfTheBinaryFormatOnly) {
  std::mt19937 random(3);
  std::vector<Value> values;
  std::vector<Data> lists;
  for (int i = 0; i < kCases; ++i) {
    values.push_back(randomPropertyList(
        random, {.nullMarkers = true, .fractionalDates = true, .controlCharacters = true}));
    lists.push_back(written(values.back(), PropertyListFormat::kBinary));
  }
  const auto answers = readWithPython(lists);
  ASSERT_TRUE(answers) << "python3 is needed";
  for (std::size_t i = 0; i < lists.size(); ++i) {
    ASSERT_EQ((*answers)[i].canonical, canonicalText(values[i]));
  }
}

// --- libplist ------------------------------------------------------------------------------------

struct FreeNode {
  void operator()(void* node) const { plist_free(node); }
};
using Node = std::unique_ptr<void, FreeNode>;

Node readByLibplist(const Data& bytes) {
  plist_t node = nullptr;
  plist_from_memory(reinterpret_cast<const char*>(bytes.data()),
                    static_cast<std::uint32_t>(bytes.size()), &node);
  return Node(node);
}

Data writtenByLibplist(const Node& node, PropertyListFormat format) {
  char* bytes = nullptr;
  std::uint32_t size = 0;
  if (format == PropertyListFormat::kXml) {
    plist_to_xml(node.get(), &bytes, &size);
  } else {
    plist_to_bin(node.get(), &bytes, &size);
  }
  Data data(bytes, bytes + size);
  format == PropertyListFormat::kXml ? plist_to_xml_free(bytes) : plist_to_bin_free(bytes);
  return data;
}

Value valueOf(plist_t node);

Value arrayOf(plist_t node) {
  Array array;
  for (std::uint32_t i = 0; i < plist_array_get_size(node); ++i) {
    array.push_back(valueOf(plist_array_get_item(node, i)));
  }
  return array;
}

Value dictionaryOf(plist_t node) {
  Dictionary dictionary;
  plist_dict_iter iterator = nullptr;
  plist_dict_new_iter(node, &iterator);
  for (;;) {
    char* key = nullptr;
    plist_t element = nullptr;
    plist_dict_next_item(node, iterator, &key, &element);
    if (element == nullptr) break;
    dictionary.set(key, valueOf(element));
    std::free(key);
  }
  std::free(iterator);
  return dictionary;
}

Value dateOf(plist_t node) {
  std::int32_t seconds = 0;
  std::int32_t microseconds = 0;
  plist_get_date_val(node, &seconds, &microseconds);
  return Date{static_cast<double>(seconds)};
}

Value valueOf(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return value != 0;
    }
    case PLIST_UINT: {
      std::uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return static_cast<std::int64_t>(value);
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return value;
    }
    case PLIST_STRING: {
      std::uint64_t size = 0;
      return std::string(plist_get_string_ptr(node, &size));
    }
    case PLIST_DATA: {
      std::uint64_t size = 0;
      const char* bytes = plist_get_data_ptr(node, &size);
      return Data(bytes, bytes + size);
    }
    case PLIST_DATE:
      return dateOf(node);
    case PLIST_ARRAY:
      return arrayOf(node);
    case PLIST_DICT:
      return dictionaryOf(node);
    default:
      return Value::nullMarker();
  }
}

class PropertyListLibplistTest : public testing::TestWithParam<PropertyListFormat> {};

INSTANTIATE_TEST_SUITE_P(PropertyList, PropertyListLibplistTest,
                         testing::Values(PropertyListFormat::kXml, PropertyListFormat::kBinary),
                         [](const auto& info) {
                           return info.param == PropertyListFormat::kXml ? "Xml" : "Binary";
                         });

TEST_P(PropertyListLibplistTest, ReadsOurListsAndWritesListsForUs) {
  std::mt19937 random(4);
  for (int i = 0; i < kCases; ++i) {
    // Its dates have 32 bits of seconds; in XML it turns -0 into 0.
    const Value value =
        randomPropertyList(random, {.specialReals = GetParam() == PropertyListFormat::kBinary,
                                    .carriageReturns = false,
                                    .onlyRecentDates = true});
    const Data ours = written(value, GetParam());
    const Node node = readByLibplist(ours);
    ASSERT_TRUE(node) << shown(ours);
    ASSERT_EQ(canonicalText(valueOf(node.get())), canonicalText(value)) << shown(ours);
    const Data theirs = writtenByLibplist(node, GetParam());
    ASSERT_EQ(readByUs(theirs), canonicalText(value)) << shown(theirs);
  }
}

// --- Lists that others accept --------------------------------------------------------------------

// libplist silently reads each of these as another value; we refuse them.
TEST(PropertyListStrictnessTest, ListsThatLibplistMisreadsAreRefused) {
  const auto takenByLibplist = [](std::string_view body) {
    const std::string text = "<plist version=\"1.0\">" + std::string(body) + "</plist>";
    const Node node = readByLibplist(Data(text.begin(), text.end()));
    EXPECT_FALSE(readPropertyList(text, "a")) << body;
    return node ? canonicalText(valueOf(node.get())) : "!";
  };
  EXPECT_EQ(takenByLibplist("<integer>12abc</integer>"), "i12");
  EXPECT_NE(takenByLibplist("<date>the day before</date>"), "!");
  EXPECT_EQ(takenByLibplist("<dict><key>a</key><true/><key>b</key></dict>"), "{61:true,}");
  EXPECT_EQ(takenByLibplist("<dict><key>a</key><true/><key>a</key><false/></dict>"), "{61:false,}");
}

}  // namespace
}  // namespace platform
