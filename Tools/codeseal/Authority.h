#pragma once

#include <chrono>
#include <string>

#include "Platform/Values/Error.h"

// A throw-away authority for development, in a folder of its own:
//
//   authority.key, authority.pem   the authority; its certificate goes into the anchors
//   signer.key, signer.pem         a signer and its certificate
//
// Keys are on the curve P-256, readable by their owner alone, and not encrypted. Keys that must
// stay secret come from elsewhere.
struct AuthorityOptions {
  std::string folder;
  std::string name = "Development";
  std::chrono::sys_seconds now;
  std::chrono::days validity{365};
};

// Makes the folder and the files. Fails if one of them exists.
platform::Result<void> makeAuthority(const AuthorityOptions& options);

// Copies the authority's certificate into the anchors of the platform at `root`, making the folders
// that lead there. Returns the file's path.
platform::Result<std::string> installAnchor(const std::string& folder, const std::string& root);
