#pragma once

#include <optional>
#include <string_view>

#include "Platform/Values/Value.h"

// Thousands of services of the catalogue do not fit into one message. A client gets them in pages.

// The services that follow the one named `last`, in their order and as many as surely fit into one
// message, but at least one; the first page if `last` is empty. After the last service the page is
// empty. Nothing if there is no service `last`.
std::optional<platform::Dictionary> pageOfServices(const platform::Dictionary& services,
                                                   std::string_view last);
