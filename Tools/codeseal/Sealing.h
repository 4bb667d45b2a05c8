#pragma once

#include <string>
#include <vector>

#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Values/Error.h"

// Signs the code at `path` and returns the paths that were signed. An ELF program gets a signature
// at its end, another file one beside it (an ELF program too with `detached`), a bundle a seal,
// after each program in its Contents/Linux. A bundle gets all its signatures in one step; after a
// failure it is as it was. A symbolic link is refused. Without an identifier in `options` each gets
// its file name, a bundle without ".bundle". `programs` is how a bundle's seal names its programs.
platform::Result<std::vector<std::string>> sealCode(
    const std::string& path, const platform::SigningIdentity& identity,
    const platform::SigningOptions& options, bool detached,
    platform::SealPrograms programs = platform::SealPrograms::kByContent);
