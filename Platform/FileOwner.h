#pragma once

#include <functional>
#include <string>

namespace platform {

// Does something with the rights on files that the owner of `path` has: what that user may have put
// there can't lead this program, which may be root, elsewhere. Of the calling thread alone. Where
// this program may not change its rights, or there is no such path, with its own.
void performAsOwnerOf(const std::string& path, const std::function<void()>& action);

// As the system's own open(), flags, mode and result, but for what such a user may have put in the
// place of a file: the other end of a pipe is not waited for, and no terminal becomes ours.
int openWithoutWaiting(const char* path, int flags, int mode);

}  // namespace platform
