#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"

// Keeps the lines that logger 2 writes while this exists.
class Logger2Lines {
 public:
  // The lines since the last call, as "LEVEL TEXT" without the name of their source file.
  std::vector<std::string> take() {
    queues_.runPending();
    std::vector<std::string> lines;
    for (const auto& message : sink_.take()) {
      const std::size_t prefix = message.text.find("] ");
      EXPECT_TRUE(message.text.starts_with("[")) << message.text;
      lines.push_back(std::to_string(message.level) + " " + message.text.substr(prefix + 2));
    }
    return lines;
  }

 private:
  platform::VirtualRunLoop loop_;
  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "test"};
  // Writes the pending lines when it ends, so it ends before what it writes to.
  platform::VirtualSerialQueues queues_{loop_};
  Logger2State state_{log_, queues_};
  Logger2Binding binding_{state_};
};
