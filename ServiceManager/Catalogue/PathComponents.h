#pragma once

#include <string>
#include <string_view>

// Joins `path` and `component` with exactly one separator, whatever separators they have there.
std::string pathByAppendingComponent(std::string_view path, std::string_view component);
