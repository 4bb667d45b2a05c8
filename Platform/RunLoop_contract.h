#pragma once

// What every run loop must do. A test program instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Virtual, RunLoopContract, testing::Values(&makeVirtualLoop));

#include "Platform/RunLoopRunning_contract.h"
#include "Platform/RunLoopSources_contract.h"
#include "Platform/RunLoopTimers_contract.h"
#include "Platform/RunLoopUrgency_contract.h"
