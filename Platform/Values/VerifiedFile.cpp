#include "Platform/Values/VerifiedFile.h"

#include <array>
#include <charconv>
#include <concepts>
#include <string_view>
#include <system_error>

namespace platform {
namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";
constexpr std::string_view kSettled = "settled";
constexpr std::string_view kRecent = "recent";
constexpr std::string_view kNone = "-";
constexpr std::size_t kMaximumDigestBytes = 64;
constexpr std::size_t kMaximumNameBytes = 32;

std::string hexOf(const Data& bytes) {
  if (bytes.empty()) return std::string(kNone);
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += kHexDigits[byte >> 4];
    text += kHexDigits[byte & 0xf];
  }
  return text;
}

std::optional<Data> bytesInHex(std::string_view text) {
  if (text == kNone) return Data();
  if (text.size() % 2 != 0 || text.size() > 2 * kMaximumDigestBytes) return std::nullopt;
  Data bytes;
  for (std::size_t at = 0; at < text.size(); at += 2) {
    const std::size_t high = kHexDigits.find(text[at]);
    const std::size_t low = kHexDigits.find(text[at + 1]);
    if (high == kHexDigits.npos || low == kHexDigits.npos) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(high << 4 | low));
  }
  return bytes;
}

// The words of a line, one after the other. A fault stays until the end.
class Words {
 public:
  explicit Words(std::string_view text) : rest_(text) {}

  std::string_view next() {
    if (isOver_) isFaulty_ = true;
    const std::size_t end = rest_.find(' ');
    const std::string_view word = rest_.substr(0, end);
    isOver_ = end == rest_.npos;
    rest_ = isOver_ ? std::string_view() : rest_.substr(end + 1);
    return word;
  }

  template <std::integral T>
  T number() {
    const std::string_view word = next();
    T number = 0;
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || stop != word.data() + word.size()) isFaulty_ = true;
    return number;
  }

  Data bytes() {
    const auto bytes = bytesInHex(next());
    if (!bytes) isFaulty_ = true;
    return bytes.value_or(Data());
  }

  bool isSettled() {
    const std::string_view word = next();
    if (word != kSettled && word != kRecent) isFaulty_ = true;
    return word == kSettled;
  }

  bool areSound() const { return !isFaulty_ && isOver_; }

 private:
  std::string_view rest_;
  bool isOver_ = false;  // the last word has been read
  bool isFaulty_ = false;
};

}  // namespace

std::string textOfVerifiedFile(const VerifiedFile& file) {
  std::string text;
  for (const std::string& word :
       {std::to_string(file.device), std::to_string(file.inode), std::to_string(file.size),
        std::to_string(file.changedSeconds), std::to_string(file.changedNanoseconds),
        std::string(file.isSettled ? kSettled : kRecent), file.digestName,
        std::to_string(file.digestedBytes), hexOf(file.digest), hexOf(file.verity)}) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return text;
}

std::optional<VerifiedFile> verifiedFileIn(const std::string& text) {
  Words words(text);
  VerifiedFile file;
  file.device = words.number<std::uint64_t>();
  file.inode = words.number<std::uint64_t>();
  file.size = words.number<std::uint64_t>();
  file.changedSeconds = words.number<std::int64_t>();
  file.changedNanoseconds = words.number<std::uint32_t>();
  file.isSettled = words.isSettled();
  file.digestName = words.next();
  file.digestedBytes = words.number<std::uint64_t>();
  file.digest = words.bytes();
  file.verity = words.bytes();
  const bool isSound = words.areSound() && !file.digest.empty() && !file.digestName.empty() &&
                       file.digestName.size() <= kMaximumNameBytes &&
                       file.digestedBytes <= file.size;
  return isSound ? std::optional(file) : std::nullopt;
}

}  // namespace platform
