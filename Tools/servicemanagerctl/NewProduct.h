#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

// The name of a product is a part of its labels, paths and identifiers: 1 to 20 lower-case letters,
// digits and hyphens that begin with a letter. Returns what is wrong with it.
std::optional<std::string> faultOfProductName(std::string_view name);

// Texts with the marks @PRODUCT@ and @PREFIX@, and what takes their places.
struct ProductTemplates {
  std::string folder;
  std::string product;
  std::string prefix;  // where the service manager is installed, empty for "/"
};

// Makes `folder` a product's: copies the templates, with their permissions to execute. A template
// "gitignore" becomes
// ".gitignore". Fails with kInvalid, without a change, if the folder holds anything, or is none,
// and with kNotFound without templates.
platform::Result<void> makeProductFolder(const ProductTemplates& templates,
                                         const std::string& folder);
