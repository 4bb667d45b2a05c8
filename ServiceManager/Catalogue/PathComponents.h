#pragma once

#include <string>
#include <string_view>

// `component` below `path`, with one separator between them whatever the two have there already.
std::string pathByAppendingComponent(std::string_view path, std::string_view component);
