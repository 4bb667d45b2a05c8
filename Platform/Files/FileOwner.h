#pragma once

#include <functional>
#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// Runs an action with the file permissions of the user who owns `file` below the folder `home`.
// That keeps symbolic links and other files of that user from leading this program, which may be
// root, elsewhere. Only the calling thread is affected; it gets its own permissions back
// afterwards.
//
// The owner follows from the folder, the file and all parts of the path between them, without
// following links: each must belong to root or to the same one user. The group is that user's own
// in the system's list of users. If everything belongs to root, the action runs as root. The file
// itself may be missing.
//
// On failure the action does not run. Fails with kNotFound or kSystem if a part of the path can't
// be examined, and with kDenied if they belong to several users, or if this program is root and
// can't take that user's permissions. A program that is not root uses its own permissions. May
// block on the name service.
Result<void> performAsOwnerOf(const std::string& home, const std::string& file,
                              const std::function<void()>& action);

// The largest file, in bytes, that openWithoutWaiting() opens.
inline constexpr long long kMostFileBytes = 64ll << 20;

// Like open(2), but safe against files that such a user may have put there: it does not block on a
// pipe, no terminal becomes the controlling one, and it opens only a folder or a regular file of at
// most kMostFileBytes. For anything else it returns -1 with EINVAL in errno.
int openWithoutWaiting(const char* path, int flags, int mode);

}  // namespace platform
