#pragma once

#include <cstdint>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/VerifiedFile.h"

namespace jobhost {

// The file of a job's program, opened so that what was verified is what runs: the process executes
// the descriptor, and no path is looked up again.
//
// A path leads to the verified file if device, inode, size and the time of the last change are the
// same. If that time can't tell, because the file was young when it was verified, the digest is
// compared too. While this exists, no other process can open the file for writing: the host has a
// lease on it, if it may have one. From the start on, the kernel forbids to write to an executable.
//
// Nothing protects a script while its interpreter reads it. So a script is copied into memory that
// nobody can change, and the copy is compared with the digest, and run.
class ProgramFile {
 public:
  // The largest script, which takes so much memory, and the largest young program: the digest of
  // more would hold up the host.
  static constexpr std::uint64_t kMaximumScriptBytes = std::uint64_t{16} << 20;
  static constexpr std::uint64_t kMaximumYoungBytes = std::uint64_t{256} << 20;

  // Fails with kChanged if the file is not the verified one, or if that can't be told. It must then
  // be verified again. Other failures say that the file can't be opened.
  static platform::Result<ProgramFile> open(const std::string& path,
                                            const platform::VerifiedFile& verified);

  int get() const { return file_.get(); }
  // A script's interpreter opens the descriptor again, so the program must inherit it.
  bool isScript() const { return isScript_; }

 private:
  platform::UniqueFd file_;
  bool isScript_ = false;
};

}  // namespace jobhost
