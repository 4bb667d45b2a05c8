#pragma once

// The contract of every transport between processes. A test program instantiates it with a harness:
//   INSTANTIATE_TEST_SUITE_P(Fake, PeerTransportContract, testing::Values(&makeHarness));

#include "Platform/Peers/PeerTransportCalls_contract.h"
#include "Platform/Peers/PeerTransportEnds_contract.h"
#include "Platform/Peers/PeerTransportLimits_contract.h"
