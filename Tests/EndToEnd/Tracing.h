#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Tests/EndToEnd/ChildProgram.h"

namespace platform {

// Whether this machine lets this user trace a running program.
bool canTrace();

// Makes strace change a program, from its own next system call on.
class Tracer {
 public:
  Tracer(ProcessId process, std::vector<std::string> options,
         const std::string& output = "/dev/null");
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;
  ~Tracer();

  // "strace: Process N attached" for each process that it has begun to trace.
  std::string nextMessage() { return strace_->nextErrorLine(); }

 private:
  std::unique_ptr<ChildProgram> strace_;
};

// One system call of a program: its name, and its number among the calls of that name.
struct TracedCall {
  std::string name;
  int number = 0;

  // The options that make strace kill the program there.
  std::vector<std::string> killThere() const {
    return {"-e", "inject=" + name + ":signal=SIGKILL:when=" + std::to_string(number)};
  }
};

// The calls in a trace, in their order. `prefix` begins each line and is dropped.
std::vector<TracedCall> callsIn(const std::string& traceFile, const std::string& prefix = "");

}  // namespace platform
