#pragma once

#include <functional>
#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// Does something with the rights on files that the user has to whom `file`, below the folder
// `home`, belongs: what that user may have put there can't lead this program, which may be root,
// elsewhere. Of the calling thread alone, which has its own rights again afterwards.
//
// Whose it is, the folder, the file and all that lies between them say, links unfollowed: each is
// root's or that one user's, who has also its own group, as the system's list of users says, and no
// other. What is root's alone is done as root. The file itself may be missing.
//
// Nothing is done, and a failure returned: kNotFound or kSystem where one of them can't be looked
// at, kDenied where they belong to several users, or where this program is root and may not take
// that user's rights. A program that is not root has only its own, and uses them. May block on the
// name service.
Result<void> performAsOwnerOf(const std::string& home, const std::string& file,
                              const std::function<void()>& action);

// The most that openWithoutWaiting() opens, in bytes.
inline constexpr long long kMostFileBytes = 64ll << 20;

// As the system's own open(), flags, mode and result, but for what such a user may have put in the
// place of a file: the other end of a pipe is not waited for, and no terminal becomes ours. Nothing
// but a folder, or a regular file of at most kMostFileBytes, is opened: -1, and EINVAL in errno.
int openWithoutWaiting(const char* path, int flags, int mode);

}  // namespace platform
