#include "Platform/PropertyLists/PropertyListXmlWriter.h"

#include <algorithm>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"

// The layout is that of the platform's own tools, so that a list edited with them and one written
// here can be compared line by line: a tab for each level except that of <plist>, empty collections
// as one tag, base64 on lines of its own up to column 76 with a tab counted as eight.

namespace platform {
namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";

class XmlWriting {
 public:
  std::string take(const Value& value) && {
    text_ = kHeader;
    write(value);
    text_ += kFooter;
    return std::move(text_);
  }

 private:
  void write(const Value& value);
  void writeArray(const Array& array);
  void writeDictionary(const Dictionary& dictionary);
  void writeData(const Data& data);
  void line(std::string_view text);
  void element(std::string_view name, std::string_view content);
  // Text above the limit is discarded, so it need not be composed.
  bool isFull() const { return text_.size() > kMaxPropertyListBytes; }

  std::string text_;
  std::size_t level_ = 0;
};

void XmlWriting::write(const Value& value) {
  if (isFull()) return;
  switch (value.type()) {
    case Value::Type::kNil:
    case Value::Type::kNullMarker:
    case Value::Type::kRemoteObject:
      return;  // checkWritable() has refused them.
    case Value::Type::kBoolean:
      return line(*value.boolean() ? "<true/>" : "<false/>");
    case Value::Type::kInteger:
      return element("integer", fmt::format("{}", *value.integer()));
    case Value::Type::kReal:
      return element("real", textFromReal(*value.real()));
    case Value::Type::kString:
      return element("string", *value.string());
    case Value::Type::kDate:
      return element("date", textFromDate(*value.date()));
    case Value::Type::kData:
      return writeData(*value.data());
    case Value::Type::kArray:
      return writeArray(*value.array());
    case Value::Type::kDictionary:
      return writeDictionary(*value.dictionary());
  }
}

void XmlWriting::writeArray(const Array& array) {
  if (array.empty()) return line("<array/>");
  line("<array>");
  ++level_;
  for (const Value& value : array) write(value);
  --level_;
  line("</array>");
}

void XmlWriting::writeDictionary(const Dictionary& dictionary) {
  if (dictionary.empty()) return line("<dict/>");
  line("<dict>");
  ++level_;
  for (const auto& [key, value] : dictionary) {
    element("key", key);
    write(value);
  }
  --level_;
  line("</dict>");
}

void XmlWriting::writeData(const Data& data) {
  constexpr std::size_t kLineEnd = 76;
  constexpr std::size_t kTabWidth = 8;
  constexpr std::size_t kMinLine = 16;
  const std::size_t indentation = std::min(kTabWidth * level_, kLineEnd - kMinLine);
  const std::size_t length = (kLineEnd - indentation) / 4 * 4;
  const std::string base64 = textFromData(data);
  line("<data>");
  for (std::size_t at = 0; at < base64.size(); at += length) {
    line(std::string_view(base64).substr(at, length));
  }
  line("</data>");
}

void XmlWriting::line(std::string_view text) {
  text_.append(level_, '\t');
  text_ += text;
  text_ += '\n';
}

void XmlWriting::element(std::string_view name, std::string_view content) {
  text_.append(level_, '\t');
  text_ += fmt::format("<{}>", name);
  for (const char character : content) {
    if (character == '&') {
      text_ += "&amp;";
    } else if (character == '<') {
      text_ += "&lt;";
    } else if (character == '>') {
      text_ += "&gt;";
    } else if (character == '\r') {
      text_ += "&#13;";  // A plain one would be read as a line feed.
    } else {
      text_ += character;
    }
  }
  text_ += fmt::format("</{}>\n", name);
}

}  // namespace

Result<std::string> xmlPropertyListText(const Value& value) {
  std::string text = XmlWriting().take(value);
  if (text.size() <= kMaxPropertyListBytes) return text;
  return std::unexpected(
      Error{ErrorCode::kExhausted, 0,
            fmt::format("an XML property list of more than {} bytes", kMaxPropertyListBytes)});
}

}  // namespace platform
