#pragma once

#include <cstddef>
#include <string_view>

// Case-insensitive comparisons of UTF-8 texts, as the platform's texts make them: by Unicode's full
// case folding, whatever the language. Canonically equivalent texts are equal, unless more than 30
// marks follow one another: beyond that their order counts. An ill-formed byte equals only itself,
// since a file's name can be any bytes. Pure; any thread; time is linear in the texts.
namespace CaseInsensitiveSearch {

bool areEqual(std::string_view one, std::string_view other);

// Whether the text begins or ends with `part`; false for an empty part. A match ends, and at the
// end of a text begins, at the border of a visible character: "e" is not found in an "e" with an
// accent.
bool isPrefix(std::string_view part, std::string_view text);
bool isSuffix(std::string_view part, std::string_view text);

// The first offset in bytes, at or after `from`, of `part` in `text`; npos if there is none. `part`
// is non-empty lower-case ASCII without control characters, and without K and S, to which
// characters outside of ASCII fold.
std::size_t find(std::string_view part, std::string_view text, std::size_t from);

}  // namespace CaseInsensitiveSearch
