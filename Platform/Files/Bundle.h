#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Dictionary.h"

namespace platform {

// The absolute paths of the parts of a bundle.
//
// A bundle is a folder NAME.bundle (or with another suffix of bundles) with Contents/Info.plist,
// Contents/Linux/PROGRAM, Contents/Resources/ and the seal Contents/_CodeSignature/. A program
// outside of such a folder has a flat bundle: its own folder with Info.plist and the resources
// beside it.
struct BundleLayout {
  std::string path;
  std::string infoPath;
  std::string executablePath;
  std::string resourcePath;

  bool operator==(const BundleLayout&) const = default;
};

// Whether a folder with this name, without its path, is a bundle: NAME.bundle, NAME.kext (an
// extension) or NAME.app.
bool isBundleName(std::string_view name);

// The bundle of the program `executablePath`, which is absolute and without symbolic links.
// Examines only the path, not files.
BundleLayout bundleLayoutOfExecutable(std::string_view executablePath);

// A bundle as the platform presents it to a program. A plain value.
class Bundle {
 public:
  Bundle(BundleLayout layout, Dictionary infoDictionary);

  const std::string& path() const { return layout_.path; }
  // The content of Info.plist, empty if there is none.
  const Dictionary& infoDictionary() const { return infoDictionary_; }
  const std::string& executablePath() const { return layout_.executablePath; }
  const std::string& resourcePath() const { return layout_.resourcePath; }

  // The path of the resource NAME.EXTENSION, or NAME if `extension` is empty (it may begin with a
  // dot). std::nullopt if there is no such file or folder, and if the name leads out of the
  // resources. Blocks on the disk.
  std::optional<std::string> pathForResource(std::string_view name,
                                             std::string_view extension) const;

 private:
  BundleLayout layout_;
  Dictionary infoDictionary_;
};

}  // namespace platform
