#include "Platform/Texts/AttributedString.h"

#include <utility>

namespace platform {

std::string AttributedString::string() const {
  std::string text;
  for (const Run& run : runs_) text += run.text;
  return text;
}

void AttributedString::append(std::string_view text, const Attributes& attributes) {
  if (text.empty()) return;
  if (!runs_.empty() && runs_.back().attributes == attributes) {
    runs_.back().text += text;
  } else {
    runs_.push_back({std::string(text), attributes});
  }
}

void AttributedString::append(const AttributedString& other) {
  for (const Run& run : other.runs_) append(run.text, run.attributes);
}

// Neighbouring runs may be equal afterwards, so the text is put together again.
template <typename Remove>
void AttributedString::change(Remove remove) {
  for (Run& run : std::exchange(runs_, {})) {
    remove(run.attributes);
    append(run.text, run.attributes);
  }
}

void AttributedString::removeFont() {
  change([](Attributes& attributes) { attributes.font.reset(); });
}

void AttributedString::removeParagraphStyle() {
  change([](Attributes& attributes) { attributes.paragraphStyle.reset(); });
}

}  // namespace platform
