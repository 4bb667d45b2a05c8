#include <cstdint>
#include <string>
#include <vector>

#include "Fuzz/Require.h"
#include "Shared/Categories/Base64.h"

namespace {

// The decoder's rule, applied character by character.
std::vector<unsigned char> decodedSlowly(const std::string& text) {
  static const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::vector<unsigned char> output;
  for (std::size_t at = 0; at < text.size();) {
    std::vector<std::size_t> values;
    while (at < text.size() && values.size() < 4) {
      const std::size_t value = alphabet.find(text[at++]);
      if (value != alphabet.npos) values.push_back(value);
    }
    if (values.empty() && !output.empty()) output.pop_back();
    std::size_t bits = 0;
    for (std::size_t i = 0; i < 4; ++i) bits = bits << 6 | (i < values.size() ? values[i] : 0);
    for (std::size_t i = 1; i < values.size(); ++i) {
      output.push_back(static_cast<unsigned char>(bits >> (24 - 8 * i)));
    }
  }
  return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using fuzz::require;
  const platform::Data data(bytes, bytes + size);
  for (const std::string& text :
       {Base64::base64EncodedString(data), Base64::base64EncodedStringWithoutLineBreaks(data)}) {
    require(Base64::dataFromBase64String(text) == data, "what was encoded is decoded");
  }
  const std::string text(data.begin(), data.end());
  std::size_t length = 0;
  const auto decoded = newBase64Decode(text.data(), text.size(), &length);
  require(decoded && std::vector(decoded.get(), decoded.get() + length) == decodedSlowly(text),
          "text is decoded by the rule");
  const auto measured = newBase64Decode(text.c_str(), kBase64ZeroTerminated, &length);
  require(measured &&
              std::vector(measured.get(), measured.get() + length) == decodedSlowly(text.c_str()),
          "so is text up to its first zero");
  return 0;
}
