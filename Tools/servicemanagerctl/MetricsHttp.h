#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// One answer to a scraper, for a service that systemd starts for each connection. Pure.

// A longer request is refused.
inline constexpr std::size_t kMaxRequestBytes = 8192;

// Whether the head of the request is there as a whole.
bool isWholeRequest(std::string_view request);

// The answer to the request: `metrics` for "GET /metrics", or an error. Without metrics nothing has
// been collected yet.
std::string answerToScraper(std::string_view request, const std::optional<std::string>& metrics);
