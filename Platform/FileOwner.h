#pragma once

#include <functional>
#include <string>

namespace platform {

// Does something with the rights on files that the owner of `path` has: what that user may have put
// there can't lead this program, which may be root, elsewhere. Of the calling thread alone. Where
// this program may not change its rights, or there is no such path, with its own.
void performAsOwnerOf(const std::string& path, const std::function<void()>& action);

}  // namespace platform
