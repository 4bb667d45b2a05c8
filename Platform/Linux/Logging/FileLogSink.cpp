#include "Platform/Linux/Logging/FileLogSink.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Logging/BlockedSignal.h"
#include "Platform/Linux/Logging/LogSinkText.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

constexpr int kOpenFlags =
    O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr mode_t kFileMode = 0640;
constexpr mode_t kFolderMode = 0755;

constexpr std::uint64_t kUnknownSize = UINT64_MAX;

std::string hostName() {
  std::array<char, 256> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return "localhost";
  return name.data();
}

ErrorCode writeErrorCode(int number) {
  return number == ENOSPC || number == EDQUOT || number == EFBIG ? ErrorCode::kExhausted
                                                                 : ErrorCode::kSystem;
}

std::unexpected<Error> notRegular(const std::string& path) {
  return std::unexpected(Error{ErrorCode::kDenied, 0, "not a regular file: " + path});
}

}  // namespace

FileLogSink::FileLogSink(std::string path, Limits limits, Line kind)
    : path_(std::move(path)), limits_{limits.bytes, std::max(limits.kept, 1U)}, kind_(kind) {}

Result<void> FileLogSink::write(const LogRecord& record) {
  const std::lock_guard lock(mutex_);
  if (auto opened = openCurrent(); !opened) return opened;
  composeLine(record);
  if (auto rotated = rotateIfFull(line_.size()); !rotated) return rotated;
  return writeLine();
}

// Checks the name before every line, so that a rotation by any process is noticed at once.
Result<void> FileLogSink::openCurrent() {
  const auto named = LogFileStatus::ofName(path_);
  if (!named && errno != ENOENT) return std::unexpected(systemError("stat " + path_));
  if (!named) return open();
  // Checked before the file is opened, because opening a device can have an effect.
  if (!named->isRegular) return notRegular(path_);
  if (!file_ || !named->isSameFileAs(current_)) return open();
  current_ = *named;
  return {};
}

Result<void> FileLogSink::open() {
  const auto openFile = [this] { return ::open(path_.c_str(), kOpenFlags, kFileMode); };
  file_ = UniqueFd(retryOnInterrupt(openFile));
  if (const std::size_t slash = path_.rfind('/');
      !file_ && errno == ENOENT && slash != std::string::npos) {
    ::mkdir(path_.substr(0, slash).c_str(), kFolderMode);
    file_ = UniqueFd(retryOnInterrupt(openFile));
  }
  if (!file_) return std::unexpected(systemError("open " + path_));
  const auto opened = LogFileStatus::ofDescriptor(file_.get());
  if (!opened || !opened->isRegular) {
    const Error error = systemError("fstat " + path_);
    file_.reset();
    return opened ? notRegular(path_) : std::unexpected(error);
  }
  current_ = *opened;
  host_ = hostName();
  expectedSize_ = kUnknownSize;
  rotateAbove_ = limits_.bytes;
  return {};
}

Result<void> FileLogSink::rotateIfFull(std::size_t added) {
  const std::uint64_t size = current_.size;
  if (size == 0 || size + added <= rotateAbove_) return {};
  rotateLogFile(path_, current_, limits_.kept);
  const LogFileStatus before = current_;
  if (auto opened = openCurrent(); !opened) return opened;
  // If the rotation fails, retrying it at every line would double the cost of a line.
  if (before.isSameFileAs(current_)) rotateAbove_ = size + limits_.bytes / 16;
  return {};
}

void FileLogSink::appendTime(const LogRecord& record) {
  const timespec now = timeOf(record);
  if (now.tv_sec != second_) {
    std::tm utc{};
    ::gmtime_r(&now.tv_sec, &utc);
    second_ = now.tv_sec;
    secondText_ = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.", utc.tm_year + 1900,
                              utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  }
  line_ += secondText_;
  fmt::format_to(std::back_inserter(line_), "{:06}Z ", now.tv_nsec / 1000);
}

void FileLogSink::composeLine(const LogRecord& record) {
  line_.clear();
  appendTime(record);
  if (kind_ == Line::kWhole) {
    appendEscaped(line_, host_, " ");
    line_ += ' ';
    appendEscaped(line_, record.ident, "[");
    fmt::format_to(std::back_inserter(line_), "[{}] (", ::getpid());
    appendEscaped(line_, record.facility, ")");
    line_ += ") <";
    line_ += levelName(record.level);
    line_ += "> ";
  }
  appendEscaped(line_, record.message);
  line_ += '\n';
}

Result<void> FileLogSink::writeLine() {
  if (endsInTornLine()) line_.insert(line_.begin(), '\n');
  expectedSize_ = kUnknownSize;
  ssize_t written = 0;
  {
    BlockedSignal tooLarge(SIGXFSZ);
    written = retryOnInterrupt([&] { return ::write(file_.get(), line_.data(), line_.size()); });
    if (written < 0) {
      const Error error = systemError("write " + path_, writeErrorCode(errno));
      if (error.osError == EFBIG) tooLarge.discard();
      return std::unexpected(error);
    }
  }
  if (static_cast<std::size_t>(written) < line_.size())
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0, "a part of a line was written to " + path_});
  expectedSize_ = current_.size + line_.size();
  return {};
}

// Whether the file ends in an incomplete line, which a full disk or a killed process has left. Call
// it only if others have written, so it usually costs nothing.
bool FileLogSink::endsInTornLine() const {
  // Another process may be writing several pages; then the size still changes.
  constexpr int kMaxReads = 4;
  std::uint64_t size = current_.size;
  for (int reads = 0; reads < kMaxReads && size != 0 && size != expectedSize_; ++reads) {
    char last = '\n';
    if (::pread(file_.get(), &last, 1, static_cast<off_t>(size) - 1) != 1 || last == '\n')
      return false;
    const auto now = LogFileStatus::ofDescriptor(file_.get());
    if (!now) return false;
    if (now->size == size) return true;
    size = now->size;
  }
  return false;
}

}  // namespace platform
