#pragma once

// What every transport between processes must do. A test program instantiates it with a harness:
//   INSTANTIATE_TEST_SUITE_P(Fake, PeerTransportContract, testing::Values(&makeHarness));

#include "Platform/PeerTransportCalls_contract.h"
#include "Platform/PeerTransportEnds_contract.h"
#include "Platform/PeerTransportLimits_contract.h"
