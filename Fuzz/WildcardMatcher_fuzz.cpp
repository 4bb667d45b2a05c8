#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "Fuzz/Require.h"
#include "Shared/Categories/NSFileManagerExtensions.h"

namespace {

using platform::NSError;
using platform::Result;

// A folder with the names of the input; no other folder exists.
class NamesManager final : public platform::FileManager {
 public:
  explicit NamesManager(std::vector<std::string> names) : names_(std::move(names)) {}

  FileManager& defaultManager() override { return *this; }
  const std::string& usersRoot() const override { return root_; }
  Result<void, NSError> createDirectory(std::string_view, const platform::Dictionary*) override {
    return {};
  }
  Result<void, NSError> overwriteWithCopy(std::string_view, std::string_view) override {
    return {};
  }
  Result<void, NSError> eachNameInDirectory(std::string_view, const EachName& each) override {
    for (const std::string& name : names_) {
      if (!each(name)) break;
    }
    return {};
  }

 private:
  std::string root_ = "/Users";
  std::vector<std::string> names_;
};

bool isAscii(const std::string& text) {
  return std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string lowerCase(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  });
  return text;
}

// The rule for ASCII without line ends, which are two bytes but one visible character.
bool matchesSlowly(const std::string& name, const std::string& pattern) {
  const std::size_t star = pattern.find('*');
  if (star == pattern.npos) return name == pattern;
  return lowerCase(name).starts_with(lowerCase(pattern.substr(0, star))) &&
         lowerCase(name).ends_with(lowerCase(pattern.substr(star + 1)));
}

}  // namespace

// The first line is the pattern, the others are names.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using fuzz::require;
  const std::string input(bytes, bytes + size);
  std::vector<std::string> lines{""};
  for (const char c : input) {
    if (c == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += c;
    }
  }
  const std::string pattern = lines.front();
  lines.erase(lines.begin());
  if (lines.size() > 50) return -1;
  NamesManager manager(lines);
  const auto matches = NSFileManagerExtensions::matchesForWildCardedPath(manager, pattern);
  require(matches.has_value(), "nothing fails here");
  require(matches->size() <= std::max<std::size_t>(lines.size() * lines.size(), 1),
          "no more than there is");

  if (!isAscii(input) || input.find_first_of("\r/") != input.npos) return 0;
  const auto below = NSFileManagerExtensions::matchesForWildCardedPath(manager, "/a/" + pattern);
  if (pattern.empty()) return 0;
  std::vector<std::string> expected;
  for (const std::string& name : lines) {
    if (!matchesSlowly(name, pattern)) continue;
    expected.push_back("/a/" + name);
    if (pattern.find('*') == pattern.npos) break;
  }
  require(*below == expected, "what matches is what the rule says");
  return 0;
}
