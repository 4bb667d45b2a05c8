#include "Tools/servicemanagerctl/NewProduct.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include <fmt/format.h>

namespace {

namespace fs = std::filesystem;
using platform::Error;
using platform::ErrorCode;
using platform::Result;

constexpr std::size_t kMostNameBytes = 20;

bool isLetter(char character) { return character >= 'a' && character <= 'z'; }
bool isDigit(char character) { return character >= '0' && character <= '9'; }

void fillIn(std::string& text, std::string_view mark, const std::string& by) {
  for (std::size_t at = 0; (at = text.find(mark, at)) != text.npos; at += by.size())
    text.replace(at, mark.size(), by);
}

std::unexpected<Error> failed(const std::error_code& error, const fs::path& path) {
  return std::unexpected(Error{ErrorCode::kSystem, error.value(), path.string()});
}

Result<void> prepareFolder(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) return failed(error, folder);
  const bool isEmpty = fs::is_empty(folder, error);
  if (error) return failed(error, folder);
  if (isEmpty) return {};
  return std::unexpected(Error{ErrorCode::kInvalid, 0, folder.string() + " is not empty"});
}

Result<std::vector<fs::path>> filesOfTemplate(const fs::path& folder) {
  std::error_code error;
  std::vector<fs::path> files;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error))
    files.push_back(at->path());
  if (error == std::errc::no_such_file_or_directory) {
    return std::unexpected(Error{ErrorCode::kNotFound, 0,
                                 folder.string() +
                                     ": there are no templates; this command is used where the "
                                     "service manager is installed"});
  }
  if (error) return failed(error, folder);
  return files;
}

Result<void> copyTemplate(const fs::path& from, const fs::path& to,
                          const ProductTemplates& templates) {
  std::ifstream input(from, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>()};
  if (!input) return failed({errno, std::generic_category()}, from);
  fillIn(text, "@PRODUCT@", templates.product);
  fillIn(text, "@PREFIX@", templates.prefix);
  std::ofstream output(to, std::ios::binary);
  output << text;
  output.close();
  if (!output) return failed({errno, std::generic_category()}, to);
  std::error_code error;
  if ((fs::status(from, error).permissions() & fs::perms::owner_exec) != fs::perms::none)
    fs::permissions(to, fs::perms(0755), error);
  if (error) return failed(error, to);
  return {};
}

}  // namespace

std::optional<std::string> faultOfProductName(std::string_view name) {
  if (name.empty() || name.size() > kMostNameBytes)
    return fmt::format("a product's name has 1 to {} characters", kMostNameBytes);
  if (!isLetter(name.front())) return "a product's name begins with a lower-case letter";
  for (const char character : name) {
    if (!isLetter(character) && !isDigit(character) && character != '-')
      return "a product's name has lower-case letters, digits and hyphens only";
  }
  return std::nullopt;
}

Result<void> makeProductFolder(const ProductTemplates& templates, const std::string& folder) {
  const auto files = filesOfTemplate(templates.folder);
  if (!files) return std::unexpected(files.error());
  if (auto prepared = prepareFolder(folder); !prepared) return prepared;
  for (const fs::path& file : *files) {
    const std::string name =
        file.filename() == "gitignore" ? ".gitignore" : file.filename().string();
    if (auto copied = copyTemplate(file, fs::path(folder) / name, templates); !copied)
      return copied;
  }
  return {};
}
