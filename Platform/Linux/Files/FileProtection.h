#pragma once

#include "Platform/Values/Value.h"

namespace platform {

// The digest by which the file system protects an open file from every change (fs-verity). The
// kernel compares with it all that is read from the file. Empty if it does not.
Data verityDigestOf(int file);

// Whether nobody can change an open file or replace it now: the file system is mounted read-only,
// or the file has the attribute "immutable", which only root can take away.
bool isImmutable(int file);

}  // namespace platform
