#include "Platform/Linux/Files/PropertyListFile.h"

#include <utility>

#include <sys/stat.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Files/ReplacementFile.h"
#include "Platform/PropertyLists/PropertyListLimits.h"

namespace platform {
namespace {

std::unexpected<Error> withContext(Error error, std::string context) {
  error.context = std::move(context);
  return std::unexpected(std::move(error));
}

mode_t modeOfReplaced(const std::string& path) {
  constexpr mode_t kNewFileMode = 0644;
  struct stat status{};
  const bool replaces = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  return replaces ? status.st_mode & 0777 : kNewFileMode;
}

}  // namespace

Result<Value> readPropertyListFile(const std::string& path) {
  const auto file = openRegularFile(path);
  if (!file) return std::unexpected(file.error());
  // One byte above the limit makes readPropertyList() refuse it.
  const auto content = readAtMost(file->get(), kMaxPropertyListBytes + 1, path);
  if (!content) return std::unexpected(content.error());
  return readPropertyList(*content, path);
}

Result<void> writePropertyListFile(const std::string& path, const Value& value,
                                   PropertyListFormat format) {
  const Result<Data> bytes = writePropertyList(value, format);
  if (!bytes) return withContext(bytes.error(), path + ": " + bytes.error().context);
  auto file = ReplacementFile::createFor(path);
  if (!file) return withContext(std::move(file.error()), path + ": no temporary file beside it");
  if (auto written = file->append(*bytes); !written) {
    return withContext(std::move(written.error()), path + ": can't be written");
  }
  if (auto given = file->setMode(modeOfReplaced(path)); !given) return given;
  return file->commit();
}

}  // namespace platform
