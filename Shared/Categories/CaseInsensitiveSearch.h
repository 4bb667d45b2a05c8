#pragma once

#include <cstddef>
#include <string_view>

// Comparisons of UTF-8 texts without regard to letter case, as the platform's texts make them:
// Unicode's full case folding, whatever the language, and canonically equivalent texts are the
// same, as long as no more than 30 marks follow one another: beyond that their order counts. An
// ill-formed byte equals itself alone, so that a file's name can be any bytes. Pure; any thread;
// time is linear in the texts.
namespace CaseInsensitiveSearch {

bool areEqual(std::string_view one, std::string_view other);

// Whether the text begins or ends with `part`, which is not empty; both answer false of an empty
// one. What is found ends, and at the end of a text begins, where a reader sees the end of a
// character: "e" is not found in an "e" with an accent.
bool isPrefix(std::string_view part, std::string_view text);
bool isSuffix(std::string_view part, std::string_view text);

// The first place, in bytes from the beginning, at or after `from` where `part` stands within
// `text`; npos where there is none. `part` is ASCII in lower case, not empty, without K and S,
// which have relatives outside of ASCII, and without control characters.
std::size_t find(std::string_view part, std::string_view text, std::size_t from);

}  // namespace CaseInsensitiveSearch
