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

// Writes it, for the job host, which starts the bus afterwards. Returns whether a bus that runs
// already may have read another part: the part has changed now, or a job host before this one has
// changed it and ended before it called forgetOutdatedBus(). The folder must exist.
[[nodiscard]] Result<bool> writeBusClients(const PlatformConfiguration& configuration);

// The file that says until then, also to the next job host, that the bus must be restarted.
std::string pathOfOutdatedBus(std::string_view root);

// The outdated bus has been told to end, or there was none.
void forgetOutdatedBus(std::string_view root);

}  // namespace platform
