#pragma once

#include <memory>

#include <dirent.h>

namespace platform {

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

// An open folder, to be read with readdir().
using FolderHandle = std::unique_ptr<DIR, FolderCloser>;

}  // namespace platform
