#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <span>
#include <string>
#include <vector>

// The product's extensions of the locale object. Pure; any thread.
namespace NSLocale::Extensions {

// `languages` with one element moved to the front: the first of the user's preferred languages,
// most preferred first, that is among them, compared exactly. Only that one moves, deliberately;
// the others keep their order. If none is preferred, nothing moves.
std::vector<std::string> sortLanguagesInPreferredOrder(
    std::vector<std::string> languages, std::span<const std::string> preferredLanguages);

}  // namespace NSLocale::Extensions
