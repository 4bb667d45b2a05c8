#pragma once

#include <span>
#include <string>
#include <vector>

// What the product asks of the locale object. Pure; any thread.
namespace NSLocale::Extensions {

// `languages` with one element moved to the front: the first of the user's preferred languages, the
// most preferred first, that is among them, compared exactly. Only that one moves, deliberately;
// the rest keep their order, and all do where none is preferred.
std::vector<std::string> sortLanguagesInPreferredOrder(
    std::vector<std::string> languages, std::span<const std::string> preferredLanguages);

}  // namespace NSLocale::Extensions
