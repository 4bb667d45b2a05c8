#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"
#include "Tools/lint/Findings.h"
#include "Tools/lint/Machine.h"

namespace lint {

enum class FileKind { kCatalogue, kJob, kPlatformConfiguration };

// "catalogue", "job", "platform".
std::string_view nameOf(FileKind kind);

struct FileReport {
  std::string file;
  std::optional<FileKind> kind;  // nothing if the file can't be read or is of no known kind
  std::vector<Finding> findings;
};

// Checks the content of a file. Its kind follows from its keys. Never blocks but on what `machine`
// does.
FileReport checkFile(const std::string& file, const platform::Result<std::string>& content,
                     const Machine& machine);

}  // namespace lint
