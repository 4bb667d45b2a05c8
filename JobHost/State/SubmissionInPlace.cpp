#include "JobHost/State/SubmissionInPlace.h"

#include <cstddef>
#include <span>
#include <string>

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

platform::Result<void> changeSubmission(const platform::UniqueFd& file, std::uint64_t boot,
                                        std::string_view label, RecordKind kind) {
  // `file` appends each write, whatever its place.
  const std::string path = pathOfDescriptor(file);
  const platform::UniqueFd anywhere(
      retryOnInterrupt([&] { return ::open(path.c_str(), O_RDWR | O_CLOEXEC); }));
  if (!anywhere) return std::unexpected(systemError("opening " + path));
  const auto content = platform::readToEnd(anywhere.get(), StateFile::kMaximumBytes, path);
  if (!content) return std::unexpected(content.error());
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(content->data()), content->size());
  const auto place = placeOfSubmission(bytes, boot, label);
  if (!place) return std::unexpected(Error{ErrorCode::kNotFound, 0, "no submission in " + path});
  const RecordHeader header = headerWithKind(kind, bytes.subspan(*place));
  const ssize_t written = retryOnInterrupt(
      [&] { return ::pwrite(anywhere.get(), &header, sizeof header, static_cast<off_t>(*place)); });
  if (written == sizeof header) return {};
  return std::unexpected(systemError("writing " + path));
}

}  // namespace jobhost
