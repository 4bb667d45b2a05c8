#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include "Platform/Linux/RunLoops/LoopThread.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/RunLoops/RunLoop.h"

// How long the program waits for its workers at its end. A server, an extension, or a file that
// can't be read must not hold it up.
constexpr std::chrono::milliseconds kWorkersEnd{500};

// Stops the threads, and those of the XPC, if there is one, and waits for all of them together.
// False if they have not ended within kWorkersEnd: the program can only leave them behind then.
[[nodiscard]] bool endTogether(const std::vector<platform::LoopThread*>& threads,
                               std::unique_ptr<platform::LinuxXPC> xpc,
                               const platform::RunLoop& loop);
