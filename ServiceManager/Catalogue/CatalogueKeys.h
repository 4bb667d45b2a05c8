#pragma once

#include <array>
#include <string_view>

// The keys of a catalogue. The readers look these up, and whoever checks a catalogue accepts these
// and no others.

namespace catalogue_keys {

// At the root.
inline constexpr std::string_view kPrimary = "Primary";
inline constexpr std::string_view kProgramPath = "ProgramPath";
inline constexpr std::string_view kProductInfo = "ProductInfo";
inline constexpr std::string_view kProductInfoKey = "ProductInfoKey";
inline constexpr std::string_view kServices = "Services";
// At the root the definitions, in a service the names of those that it uses.
inline constexpr std::string_view kFeatures = "Features";
inline constexpr std::string_view kKernelExtensions = "KernelExtensions";

// In a service.
inline constexpr std::string_view kProducts = "Products";
inline constexpr std::string_view kJobSpec = "JobSpec";
inline constexpr std::string_view kNotification = "Notification";
inline constexpr std::string_view kMinimumOSVersion = "MinimumOSVersion";

// In a "JobSpec", whose other keys are those of every job.
inline constexpr std::string_view kProgram = "Program";

// In a feature, and in each of its configurations.
inline constexpr std::string_view kConfig = "Config";
inline constexpr std::string_view kSource = "Source";
inline constexpr std::string_view kSwitches = "Switches";

// In an extension.
inline constexpr std::string_view kIdentifier = "Identifier";
inline constexpr std::string_view kOptions = "Options";

// The only option that has a meaning: the extension is told the secret.
inline constexpr std::string_view kSecureOption = "secure";

}  // namespace catalogue_keys

// The dictionary that a key stands in.
enum class CatalogueScope { kRoot, kService, kFeature, kConfiguration, kExtension };

enum class CatalogueType {
  kString,
  kStrings,         // an array of strings
  kDictionary,      // with keys and values that the catalogue's author chooses
  kDictionaries,    // a dictionary of dictionaries
  kConfigurations,  // an array of dictionaries
};

struct CatalogueKey {
  CatalogueScope scope;
  std::string_view name;
  CatalogueType type;
  bool isRequired = false;  // without it the rest of that dictionary is of no use
};

inline constexpr std::array kCatalogueKeys{
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kPrimary, CatalogueType::kString, true},
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kProgramPath, CatalogueType::kString, true},
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kProductInfo, CatalogueType::kString, true},
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kProductInfoKey, CatalogueType::kString,
                 true},
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kServices, CatalogueType::kDictionaries,
                 true},
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kFeatures, CatalogueType::kDictionaries},
    CatalogueKey{CatalogueScope::kRoot, catalogue_keys::kKernelExtensions,
                 CatalogueType::kDictionaries},
    CatalogueKey{CatalogueScope::kService, catalogue_keys::kProducts, CatalogueType::kStrings},
    CatalogueKey{CatalogueScope::kService, catalogue_keys::kJobSpec, CatalogueType::kDictionary},
    CatalogueKey{CatalogueScope::kService, catalogue_keys::kNotification, CatalogueType::kString},
    CatalogueKey{CatalogueScope::kService, catalogue_keys::kMinimumOSVersion,
                 CatalogueType::kString},
    CatalogueKey{CatalogueScope::kService, catalogue_keys::kKernelExtensions,
                 CatalogueType::kStrings},
    CatalogueKey{CatalogueScope::kService, catalogue_keys::kFeatures, CatalogueType::kStrings},
    CatalogueKey{CatalogueScope::kFeature, catalogue_keys::kConfig, CatalogueType::kConfigurations},
    CatalogueKey{CatalogueScope::kConfiguration, catalogue_keys::kSource, CatalogueType::kString,
                 true},
    CatalogueKey{CatalogueScope::kConfiguration, catalogue_keys::kSwitches,
                 CatalogueType::kDictionary},
    CatalogueKey{CatalogueScope::kExtension, catalogue_keys::kIdentifier, CatalogueType::kString,
                 true},
    CatalogueKey{CatalogueScope::kExtension, catalogue_keys::kOptions, CatalogueType::kStrings},
};
