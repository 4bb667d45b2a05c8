#pragma once

// The contract of every run loop. A test program instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Virtual, RunLoopContract, testing::Values(&makeVirtualLoop));

#include "Platform/RunLoops/RunLoopRunning_contract.h"
#include "Platform/RunLoops/RunLoopSources_contract.h"
#include "Platform/RunLoops/RunLoopTimers_contract.h"
#include "Platform/RunLoops/RunLoopTurns_contract.h"
#include "Platform/RunLoops/RunLoopUrgency_contract.h"
