#include "Tools/codeseal/Sealing.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "Platform/Files/Bundle.h"

namespace {

using namespace platform;

SigningOptions withIdentifier(SigningOptions options, const std::string& path) {
  if (options.identifier) return options;
  const std::filesystem::path name = std::filesystem::path(path).filename();
  options.identifier = isBundleName(name.string()) ? name.stem().string() : name.string();
  return options;
}

Result<void> sealFile(const std::string& path, const SigningIdentity& identity,
                      const SigningOptions& options, bool detached) {
  const auto carries = canCarrySignature(path);
  if (!carries) return std::unexpected(carries.error());
  const SigningOptions named = withIdentifier(options, path);
  return *carries && !detached ? signProgram(path, identity, named)
                               : signDetached(path, identity, named);
}

// The programs of a bundle, without the signatures beside them.
std::vector<std::string> programsOf(const std::string& bundle) {
  std::vector<std::string> programs;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(bundle + "/Contents/Linux", error), end;
       !error && entry != end; entry.increment(error)) {
    if (entry->is_regular_file(error) && !entry->is_symlink(error) &&
        entry->path().extension() != ".p7s") {
      programs.push_back(entry->path().string());
    }
  }
  std::ranges::sort(programs);
  return programs;
}

}  // namespace

Result<std::vector<std::string>> sealCode(const std::string& path, const SigningIdentity& identity,
                                          const SigningOptions& options, bool detached) {
  std::error_code error;
  std::vector<std::string> sealed;
  if (!std::filesystem::is_directory(path, error)) {
    if (auto done = sealFile(path, identity, options, detached); !done) {
      return std::unexpected(done.error());
    }
    return std::vector{path};
  }
  for (const std::string& program : programsOf(path)) {
    if (auto done = sealFile(program, identity, options, detached); !done) {
      return std::unexpected(done.error());
    }
    sealed.push_back(program);
  }
  if (auto done = signBundle(path, identity, withIdentifier(options, path)); !done) {
    return std::unexpected(done.error());
  }
  sealed.push_back(path);
  return sealed;
}
