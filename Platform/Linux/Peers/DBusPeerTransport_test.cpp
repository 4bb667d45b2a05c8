#include "Platform/Linux/Peers/DBusPeerTransport.h"

#include <gtest/gtest.h>

#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Peers/PeerTransport_contract.h"

namespace platform {
namespace {

std::unique_ptr<PeerTransportHarness> makePeerHarness() { return std::make_unique<PeerThreads>(); }

INSTANTIATE_TEST_SUITE_P(DBus, PeerTransportContract, testing::Values(&makePeerHarness));

}  // namespace
}  // namespace platform
