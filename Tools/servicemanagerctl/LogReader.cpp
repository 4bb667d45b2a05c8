#include "Tools/servicemanagerctl/LogReader.h"

#include <algorithm>

#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace {

using namespace platform;

constexpr std::size_t kPart = 64 * 1024;

// The position at which the last lines of the text begin.
std::size_t beginningOfLast(std::string_view text, std::size_t lines) {
  std::size_t end = text.ends_with('\n') ? text.size() - 1 : text.size();
  for (; lines > 0; --lines) {
    if (end == 0) return 0;
    const std::size_t previous = text.rfind('\n', end - 1);
    if (previous == text.npos) return 0;
    end = previous;
  }
  return end + 1;
}

}  // namespace

Result<void> LogReader::open() {
  auto file = openRegularFile(path_);
  if (!file && file.error().code == ErrorCode::kNotFound) return {};
  if (!file) return std::unexpected(std::move(file.error()));
  file_ = std::move(file->file);
  return {};
}

Result<void> LogReader::skipToLast(std::size_t lines) {
  if (const auto opened = open(); !opened || !file_) return opened;
  const off_t size = ::lseek(file_.get(), 0, SEEK_END);
  const off_t begin = std::max<off_t>(0, size - static_cast<off_t>(kPart));
  if (size < 0 || ::lseek(file_.get(), begin, SEEK_SET) < 0)
    return std::unexpected(systemError(path_));
  const auto text = readAtMost(file_.get(), kPart, path_);
  if (!text) return std::unexpected(text.error());
  const off_t last = begin + static_cast<off_t>(beginningOfLast(*text, lines));
  if (::lseek(file_.get(), last, SEEK_SET) < 0) return std::unexpected(systemError(path_));
  return {};
}

Result<void> LogReader::skipToLastBytes(off_t bytes) {
  if (const auto opened = open(); !opened || !file_) return opened;
  const off_t size = ::lseek(file_.get(), 0, SEEK_END);
  const off_t begin = std::max<off_t>(0, size - bytes);
  if (size < 0 || ::lseek(file_.get(), begin, SEEK_SET) < 0)
    return std::unexpected(systemError(path_));
  return {};
}

Result<std::string> LogReader::next() {
  for (;;) {
    if (!file_) {
      if (const auto opened = open(); !opened) return std::unexpected(opened.error());
      if (!file_) return std::string();
    }
    // Check this before the last read: a line that is written between the two would be missed.
    const bool replaced = isReplaced();
    auto part = readAtMost(file_.get(), kPart, path_);
    if (!part || !part->empty() || !replaced) return part;
    file_.reset();
  }
}

bool LogReader::isReading(const struct stat& file) const {
  struct stat ours{};
  return file_ && ::fstat(file_.get(), &ours) == 0 && ours.st_ino == file.st_ino &&
         ours.st_dev == file.st_dev;
}

bool LogReader::isReplaced() const {
  struct stat ours{};
  struct stat named{};
  if (::fstat(file_.get(), &ours) != 0 || ::stat(path_.c_str(), &named) != 0) return false;
  return ours.st_ino != named.st_ino || ours.st_dev != named.st_dev;
}
