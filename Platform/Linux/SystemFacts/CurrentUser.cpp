#include "Platform/SystemFacts/CurrentUser.h"

#include <unistd.h>

namespace platform {

UserId currentUserId() { return ::getuid(); }

UserId currentEffectiveUserId() { return ::geteuid(); }

}  // namespace platform
