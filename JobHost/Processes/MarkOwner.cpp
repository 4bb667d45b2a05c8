#include "JobHost/Processes/MarkOwner.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include <elf.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/ProcessRecord.h"

namespace jobhost {

using platform::Result;
using platform::retryOnInterrupt;
using platform::UserId;

namespace {

// The begin of a file of the process. Empty if there is no such process.
Result<std::string> beginOf(std::string_view process, const char* name) {
  const std::string path = fmt::format("/proc/{}/{}", process, name);
  const platform::UniqueFd file(
      retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!file && platform::isShortage(errno)) {
    return std::unexpected(platform::systemError(path, platform::ErrorCode::kExhausted));
  }
  char text[1024];
  const ssize_t size =
      file ? retryOnInterrupt([&] { return ::read(file.get(), text, sizeof text); }) : 0;
  return std::string(text, static_cast<std::size_t>(size > 0 ? size : 0));
}

// AT_SECURE in an auxiliary vector with entries of this form. Empty if it is not there, or if the
// vector has another form.
template <typename Entry>
std::optional<bool> secureIn(std::string_view vector) {
  Entry entry{};
  std::optional<bool> isSecure;
  for (; vector.size() >= sizeof entry; vector.remove_prefix(sizeof entry)) {
    std::memcpy(&entry, vector.data(), sizeof entry);
    // A type and a value of a 32-bit program, read as a type.
    if (std::uint64_t{entry.a_type} > UINT32_MAX) return std::nullopt;
    if (entry.a_type == AT_SECURE) isSecure = entry.a_un.a_val != 0;
    if (entry.a_type == AT_NULL) break;
  }
  return isSecure;
}

}  // namespace

bool hasGainedRights(std::string_view vector) {
  const auto isSecure = secureIn<Elf64_auxv_t>(vector);
  return isSecure ? *isSecure : secureIn<Elf32_auxv_t>(vector).value_or(true);
}

Result<UserId> ownerOfMark(std::string_view process) {
  const auto status = beginOf(process, "status");
  if (!status) return std::unexpected(status.error());
  const auto vector = beginOf(process, "auxv");
  if (!vector) return std::unexpected(vector.error());
  const auto users = platform::parseProcessStatus(*status);
  if (!users) return kUnknownUser;
  // A service's program may have the set-group-ID bit or capabilities of its file. So if the real
  // user is another one, it counts nonetheless.
  const bool isPowerful = users->realUser == 0 || users->realUser == ::geteuid();
  return isPowerful && hasGainedRights(*vector) ? kUnknownUser : users->realUser;
}

}  // namespace jobhost
