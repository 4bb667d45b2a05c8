#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

// Text with three attributes: the target of a link, and the two attributes of style that text from
// HTML has.
class AttributedString {
 public:
  struct Font {
    bool bold = false;
    bool italic = false;
    bool operator==(const Font&) const = default;
  };
  struct ParagraphStyle {
    int headerLevel = 0;  // 1 to 6 within a heading
    bool operator==(const ParagraphStyle&) const = default;
  };
  struct Attributes {
    std::optional<std::string> link = std::nullopt;  // a URL as it was written
    std::optional<Font> font = std::nullopt;
    std::optional<ParagraphStyle> paragraphStyle = std::nullopt;
    bool operator==(const Attributes&) const = default;
  };
  // A part of the text with equal attributes; never empty.
  struct Run {
    std::string text;
    Attributes attributes;
    bool operator==(const Run&) const = default;
  };

  AttributedString() = default;
  // Plain text without attributes.
  explicit AttributedString(std::string_view plain) { append(plain, {}); }

  // Neighbouring runs always differ in their attributes.
  const std::vector<Run>& runs() const { return runs_; }
  bool empty() const { return runs_.empty(); }
  // The text alone.
  std::string string() const;

  void append(std::string_view text, const Attributes& attributes);
  void append(const AttributedString& other);

  // Removes an attribute from the whole text, which then looks like its surroundings.
  void removeFont();
  void removeParagraphStyle();

  bool operator==(const AttributedString&) const = default;

 private:
  template <typename Remove>
  void change(Remove remove);

  std::vector<Run> runs_;
};

}  // namespace platform
