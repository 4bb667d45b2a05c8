#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The part of the private notification bus's configuration that says who may connect: the user of
// the job host, and the product's group, or every user if the bus is open. The bus asks the kernel
// for the user of each client, so the mode of its socket is not its only gate. Root is in the fixed
// part.
std::string busClientsText(const PlatformConfiguration& configuration, std::uint32_t ownUser);

// Where that part is, below a platform root.
std::string pathOfBusClients(std::string_view root);

// Writes it, for the job host, which starts the bus afterwards. Returns whether it has changed: a
// bus that runs already has read the part before. The folder must exist.
[[nodiscard]] Result<bool> writeBusClients(const PlatformConfiguration& configuration);

}  // namespace platform
