#include "JobHost/Processes/MarkOwner.h"

#include <cerrno>
#include <cstring>
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

// Whether the kernel says in the auxiliary vector that the program has more rights than the process
// had before.
bool hasGainedRights(std::string_view vector) {
  Elf64_auxv_t entry{};
  for (; vector.size() >= sizeof entry; vector.remove_prefix(sizeof entry)) {
    std::memcpy(&entry, vector.data(), sizeof entry);
    if (entry.a_type == AT_SECURE) return entry.a_un.a_val != 0;
  }
  return true;
}

}  // namespace

Result<UserId> ownerOfMark(std::string_view process) {
  const auto status = beginOf(process, "status");
  if (!status) return std::unexpected(status.error());
  const auto vector = beginOf(process, "auxv");
  if (!vector) return std::unexpected(vector.error());
  const auto users = platform::parseProcessStatus(*status);
  return users && !hasGainedRights(*vector) ? users->realUser : kUnknownUser;
}

}  // namespace jobhost
