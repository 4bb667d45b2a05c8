#include "Tools/servicemanagerctl/ConfigurationFile.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Files/ReplacementFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Tools/servicemanagerctl/JsonValue.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

FileForm formOf(std::string_view content) {
  if (content.starts_with("bplist")) return FileForm::kBinary;
  const std::size_t begin = content.find_first_not_of(kXmlWhiteSpace);
  const bool isJson = begin != content.npos && (content[begin] == '{' || content[begin] == '[');
  return isJson ? FileForm::kJson : FileForm::kXml;
}

Result<std::string> propertyListText(const Value& value, PropertyListFormat format) {
  const auto bytes = writePropertyList(value, format);
  if (!bytes) return std::unexpected(bytes.error());
  return std::string(bytes->begin(), bytes->end());
}

// A file to write: one that is there, or a new one.
struct Target {
  std::string path;
  std::optional<struct stat> replaced = {};
};

// Follows a symbolic link. A link in /dev may lead to no path, and must not be replaced either.
Result<Target> targetOf(const std::string& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return Target{path};
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                             &std::free);
  if (!resolved || ::stat(resolved.get(), &status) != 0) return std::unexpected(systemError(path));
  if (!S_ISREG(status.st_mode)) return invalid(path + ": is not a regular file");
  return Target{resolved.get(), status};
}

}  // namespace

std::string nameOf(FileForm form) {
  switch (form) {
    case FileForm::kXml:
      return "xml";
    case FileForm::kBinary:
      return "binary";
    case FileForm::kJson:
      return "json";
  }
  return "";
}

FileForm formNamed(const std::string& name) {
  if (name == "binary") return FileForm::kBinary;
  return name == "json" ? FileForm::kJson : FileForm::kXml;
}

Result<ConfigurationFile> readConfigurationFile(const std::string& path) {
  const auto file = openRegularFile(path, FinalLink::kFollow);
  if (!file) return std::unexpected(file.error());
  // One byte above the limit makes the readers reject it.
  const auto content = readAtMost(file->get(), kMaxPropertyListBytes + 1, path);
  if (!content) return std::unexpected(content.error());
  const FileForm form = formOf(*content);
  auto value =
      form == FileForm::kJson ? valueOfJson(*content, path) : readPropertyList(*content, path);
  if (!value) return std::unexpected(value.error());
  return ConfigurationFile{*std::move(value), form};
}

Result<std::string> contentOf(const Value& value, FileForm form) {
  switch (form) {
    case FileForm::kXml:
      return propertyListText(value, PropertyListFormat::kXml);
    case FileForm::kBinary:
      return propertyListText(value, PropertyListFormat::kBinary);
    case FileForm::kJson:
      break;
  }
  if (const std::string loss = lossInJson(value); !loss.empty()) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, fmt::format("{}, which JSON can't hold", loss)});
  }
  return dumped(jsonOf(value));
}

Result<void> writeConfigurationFile(const std::string& path, const std::string& content) {
  const auto target = targetOf(path);
  if (!target) return std::unexpected(target.error());
  auto file = ReplacementFile::createFor(target->path);
  if (!file) return std::unexpected(file.error());
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(content.data());
  if (auto written = file->append(std::span(bytes, content.size())); !written) return written;
  const auto& replaced = target->replaced;
  auto given = replaced ? file->setOwnerAndMode(replaced->st_uid, replaced->st_gid,
                                                replaced->st_mode & 07777)
                        : file->setMode(0644);
  if (!given) return given;
  return file->commit();
}
