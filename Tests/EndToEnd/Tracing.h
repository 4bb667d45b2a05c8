#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Tests/EndToEnd/ChildProgram.h"

namespace platform {

// Whether this machine lets this user trace a program that runs already.
bool canTrace();

// Makes strace do something to a program, from its own next system call on.
class Tracer {
 public:
  Tracer(ProcessId process, std::vector<std::string> options,
         const std::string& output = "/dev/null");
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;
  ~Tracer();

  // "strace: Process N attached" for each that it has begun to trace.
  std::string nextMessage() { return strace_->nextErrorLine(); }

 private:
  std::unique_ptr<ChildProgram> strace_;
};

// One system call of a program: the how many-th of its name it is.
struct TracedCall {
  std::string name;
  int number = 0;

  // What makes strace kill the program there.
  std::vector<std::string> killThere() const {
    return {"-e", "inject=" + name + ":signal=SIGKILL:when=" + std::to_string(number)};
  }
};

// The calls in a trace, in their order. Each line begins with `who`, which is not shown.
std::vector<TracedCall> callsIn(const std::string& traceFile, const std::string& who = "");

}  // namespace platform
