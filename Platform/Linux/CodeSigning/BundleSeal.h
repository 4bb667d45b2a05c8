#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Values/Value.h"

namespace platform {

// The list of a bundle's content, CodeResources: a property list
//
//   files2: { "Contents/Linux/program": { hash2: <SHA-256 of the file> },
//             "Contents/Linux/other":   { signed: "identifier of its signature" },
//             "Contents/current":       { symlink: "versions/2" } }
//
// with paths relative to the bundle. Folders are not listed, so an empty folder is not covered.
// A program that is sealed by its signature may be replaced by another one with a trusted signature
// of the same identifier: the bundle and its program then come in packages of their own.
struct SealedItem {
  Data sha256;             // of a file
  std::string linkText;    // of a symbolic link
  std::string identifier;  // of a program that is sealed by its signature
};
using BundleSeal = std::map<std::string, SealedItem, std::less<>>;

// Reads a list. Fails with errSecCSBadResource if it is ill-formed.
CodeSigningResult<BundleSeal> readBundleSeal(std::span<const std::uint8_t> bytes,
                                             const std::string& name);

// Whether the first `size` bytes of an open file are such a list. A list has the same kind of
// signature as a program, so it must not pass for one.
CodeSigningResult<bool> isBundleSeal(int file, std::uint64_t size, std::uint8_t firstByte,
                                     const std::string& name);

// How a seal names the programs in Contents/Linux.
enum class SealPrograms { kByContent, kBySignature };

// Makes the list for these contents. Reads all files. A program that is sealed by its signature has
// one already, at its end and with an identifier that no other program of the bundle has.
CodeSigningResult<Data> makeBundleSeal(const BundleContents& contents, SealPrograms programs);

// Whether the program at `path` has a trusted signature with this identifier.
using CheckSealedProgram =
    std::function<CodeSigningResult<void>(const std::string& path, const std::string& identifier)>;

// Whether the contents are the sealed ones. Checks first that nothing was added, is missing or
// links elsewhere, then hashes each file or checks its signature. Reads all files.
CodeSigningResult<void> checkBundleSeal(const BundleSeal& seal, const BundleContents& contents,
                                        const std::string& bundle,
                                        const CheckSealedProgram& checkProgram);

}  // namespace platform
