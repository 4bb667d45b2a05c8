#include "Platform/Linux/DBusPeerTransport.h"

#include <gtest/gtest.h>

#include "Platform/Linux/PeerThreads_contract.h"
#include "Platform/PeerTransport_contract.h"

namespace platform {
namespace {

std::unique_ptr<PeerTransportHarness> makePeerHarness() { return std::make_unique<PeerThreads>(); }

INSTANTIATE_TEST_SUITE_P(DBus, PeerTransportContract, testing::Values(&makePeerHarness));

}  // namespace
}  // namespace platform
