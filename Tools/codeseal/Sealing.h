#pragma once

#include <string>
#include <vector>

#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Values/Error.h"

// Signs what lies at `path`: an ELF program by a signature at its end, another file by one beside
// it (also where `detached`), a bundle by a seal, after each program in its Contents/Linux. Tells
// the paths that were signed. Without an identifier in `options` each gets its name as such, a
// bundle that without ".bundle".
platform::Result<std::vector<std::string>> sealCode(const std::string& path,
                                                    const platform::SigningIdentity& identity,
                                                    const platform::SigningOptions& options,
                                                    bool detached);
