#include "Platform/Linux/SystemFacts/PreferredLanguages.h"

#include <algorithm>
#include <optional>

#include "Platform/Linux/Files/RegularFile.h"

namespace platform {
namespace {

constexpr std::size_t kMaxLocaleFileBytes = 4096;
constexpr const char* kLocaleFiles[] = {"etc/locale.conf", "etc/default/locale"};
constexpr char kDefaultLanguage[] = "en";

std::optional<std::string> contentOfLocaleFile(const std::string& path) {
  const auto file = openRegularFile(path);
  if (!file) return std::nullopt;
  auto content = readToEnd(file->get(), kMaxLocaleFileBytes, path);
  return content ? std::optional(*std::move(content)) : std::nullopt;
}

// Takes the text up to `end` off, together with `end`.
std::string_view takeUpTo(char end, std::string_view& text) {
  const std::size_t at = text.find(end);
  const std::string_view taken = text.substr(0, at);
  text.remove_prefix(at == text.npos ? text.size() : at + 1);
  return taken;
}

// The value without its quotes.
std::string_view unquoted(std::string_view value) {
  for (const char quote : {'"', '\''}) {
    if (value.size() >= 2 && value.front() == quote && value.back() == quote) {
      return value.substr(1, value.size() - 2);
    }
  }
  return value;
}

// Adds the languages of a list with colons, in the platform's spelling.
void addLanguages(std::string_view locales, std::vector<std::string>& languages) {
  while (!locales.empty()) {
    const std::string_view locale = takeUpTo(':', locales);
    std::string language(locale.substr(0, locale.find_first_of(".@")));
    std::ranges::replace(language, '_', '-');
    if (language.empty() || language == "C" || language == "POSIX") continue;
    if (std::ranges::find(languages, language) == languages.end()) {
      languages.push_back(std::move(language));
    }
  }
}

}  // namespace

std::vector<std::string> languagesOfLocaleFile(std::string_view content) {
  std::string_view list;
  std::string_view lang;
  while (!content.empty()) {
    std::string_view line = takeUpTo('\n', content);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.find('=') == line.npos) continue;
    const std::string_view name = takeUpTo('=', line);
    if (name == "LANGUAGE") list = unquoted(line);
    if (name == "LANG") lang = unquoted(line);
  }
  std::vector<std::string> languages;
  addLanguages(list, languages);
  addLanguages(lang, languages);
  return languages;
}

std::vector<std::string> preferredLanguages(const PlatformConfiguration& configuration) {
  if (!configuration.languages.empty()) return configuration.languages;
  for (const char* file : kLocaleFiles) {
    const auto content = contentOfLocaleFile(pathBelowRoot(configuration.root, file));
    if (!content) continue;
    auto languages = languagesOfLocaleFile(*content);
    if (!languages.empty()) return languages;
  }
  return {kDefaultLanguage};
}

}  // namespace platform
