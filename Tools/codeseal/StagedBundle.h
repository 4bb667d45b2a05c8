#pragma once

#include <string>

#include "Platform/Values/Error.h"

// A copy of a bundle that takes the bundle's place in one step, or leaves no trace. Its files are
// hard links where that is possible, so it costs little; a file must be replaced, not written to. A
// file that others add to the bundle meanwhile is lost.
class StagedBundle {
 public:
  // `path` is a folder.
  static platform::Result<StagedBundle> make(const std::string& path);

  StagedBundle(StagedBundle&& other) noexcept;
  StagedBundle& operator=(StagedBundle&&) = delete;
  ~StagedBundle();

  // The copy; it has the name of the bundle.
  const std::string& path() const { return path_; }

  // Exchanges the copy and the bundle, which is removed then.
  platform::Result<void> commit();

 private:
  StagedBundle() = default;

  std::string original_;
  std::string folder_;  // holds the copy
  std::string path_;
};
