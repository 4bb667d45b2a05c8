#include "Tools/codeseal/Sealing.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include <sys/stat.h>

#include "Platform/Files/Bundle.h"
#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Tools/codeseal/StagedBundle.h"

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

// Signs the bundle at `path`, program by program, and returns what was signed, relative to it.
Result<std::vector<std::string>> sealBundleAt(const std::string& path,
                                              const SigningIdentity& identity,
                                              const SigningOptions& options, bool detached,
                                              SealPrograms programs) {
  std::vector<std::string> sealed;
  for (const std::string& program : programsOf(path)) {
    if (auto done = sealFile(program, identity, options, detached); !done) {
      return std::unexpected(done.error());
    }
    sealed.push_back(program.substr(path.size()));
  }
  if (auto done = signBundle(path, identity, withIdentifier(options, path), programs); !done) {
    return std::unexpected(done.error());
  }
  sealed.emplace_back();
  return sealed;
}

// A folder that was named by mistake must not become a bundle with a seal.
bool isBundle(const std::string& folder) {
  std::error_code error;
  return isBundleName(std::filesystem::path(folder).filename().string()) ||
         std::filesystem::exists(folder + "/Info.plist", error);
}

// The error of work on a copy, about the bundle itself.
Error aboutOriginal(Error error, const std::string& copy, const std::string& original) {
  for (std::size_t at = 0; (at = error.context.find(copy, at)) != std::string::npos;) {
    error.context.replace(at, copy.size(), original);
    at += original.size();
  }
  return error;
}

// A copy is signed, and takes the bundle's place when all of it is done.
Result<std::vector<std::string>> sealBundle(const std::string& path,
                                            const SigningIdentity& identity,
                                            const SigningOptions& options, bool detached,
                                            SealPrograms programs) {
  if (const auto contents = listBundle(path); !contents) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, contents.error().reason});
  }
  auto copy = StagedBundle::make(path);
  if (!copy) return std::unexpected(std::move(copy.error()));
  auto sealed = sealBundleAt(copy->path(), identity, options, detached, programs);
  if (!sealed) return std::unexpected(aboutOriginal(sealed.error(), copy->path(), path));
  if (auto done = copy->commit(); !done) return std::unexpected(std::move(done.error()));
  for (std::string& one : *sealed) one.insert(0, path);
  return sealed;
}

}  // namespace

Result<std::vector<std::string>> sealCode(const std::string& path, const SigningIdentity& identity,
                                          const SigningOptions& options, bool detached,
                                          SealPrograms programs) {
  const auto found = findFile(path, FinalLink::kRefuse);
  if (!found) return std::unexpected(found.error());
  if (S_ISLNK(found->status.st_mode)) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, path + ": is a symbolic link; name the real path"});
  }
  if (S_ISDIR(found->status.st_mode)) {
    if (isBundle(path)) return sealBundle(path, identity, options, detached, programs);
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0,
              path + ": is no bundle: it has neither the name of one (NAME.bundle, NAME.kext, "
                     "NAME.app) nor an Info.plist"});
  }
  if (auto done = sealFile(path, identity, options, detached); !done) {
    return std::unexpected(done.error());
  }
  return std::vector{path};
}
