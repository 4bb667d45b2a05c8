#include "JobHost/State/SubmissionInPlace.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "JobHost/State/StateFile.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::retryOnInterrupt;
using platform::systemError;

namespace {

// The whole record at the place, empty if there is none.
std::vector<std::uint8_t> recordAt(int file, std::size_t place) {
  const auto read = [&](std::span<std::uint8_t> bytes) {
    const ssize_t count = retryOnInterrupt(
        [&] { return ::pread(file, bytes.data(), bytes.size(), static_cast<off_t>(place)); });
    return count == static_cast<ssize_t>(bytes.size());
  };
  std::vector<std::uint8_t> record(sizeof(RecordHeader));
  if (!read(record)) return {};
  RecordHeader header;
  std::memcpy(&header, record.data(), sizeof header);
  if (header.size > StateFile::kMaximumBytes) return {};
  record.resize(sizeof header + header.size);
  if (!read(record)) return {};
  return record;
}

platform::Result<void> writeHeader(int file, std::size_t place, const RecordHeader& header) {
  const ssize_t written = retryOnInterrupt(
      [&] { return ::pwrite(file, &header, sizeof header, static_cast<off_t>(place)); });
  if (written == sizeof header) return {};
  return std::unexpected(systemError("writing the header of a record"));
}

}  // namespace

platform::Result<void> changeSubmission(const platform::UniqueFd& file, std::uint64_t boot,
                                        std::string_view label, RecordKind kind,
                                        std::optional<std::size_t> known) {
  // `file` appends each write, whatever its place.
  const std::string path = pathOfDescriptor(file);
  const platform::UniqueFd anywhere(
      retryOnInterrupt([&] { return ::open(path.c_str(), O_RDWR | O_CLOEXEC); }));
  if (!anywhere) return std::unexpected(systemError("opening " + path));
  const auto record = known ? recordAt(anywhere.get(), *known) : std::vector<std::uint8_t>();
  if (placeOfSubmission(record, boot, label) == 0) {
    return writeHeader(anywhere.get(), *known, headerWithKind(kind, record));
  }
  const auto content = platform::readToEnd(anywhere.get(), StateFile::kMaximumBytes, path);
  if (!content) return std::unexpected(content.error());
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(content->data()), content->size());
  const auto place = placeOfSubmission(bytes, boot, label);
  if (!place) return std::unexpected(Error{ErrorCode::kNotFound, 0, "no submission in " + path});
  return writeHeader(anywhere.get(), *place, headerWithKind(kind, bytes.subspan(*place)));
}

}  // namespace jobhost
