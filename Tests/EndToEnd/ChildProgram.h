#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"

namespace platform {

// A real program that a test starts and uses through its standard files. Every wait is limited to a
// minute, after which the test fails. A program that still runs at the end is killed.
class ChildProgram {
 public:
  // `arguments` begin with the program's path. The environment contains only `environment`, each as
  // "NAME=VALUE", and the sanitizers' options.
  ChildProgram(std::vector<std::string> arguments, std::vector<std::string> environment);
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;
  ~ChildProgram();

  ProcessId process() const { return process_; }
  void signal(int number) const;
  void closeInput() { input_.reset(); }
  // Writes a line to its input; has no effect on a program that has ended.
  void send(const std::string& line) const;

  // The next line of its output, without the line end.
  std::string nextLine();
  // The same, or nothing when the program has closed its output.
  std::optional<std::string> nextLineIfAny();
  // The next line of its errors.
  std::string nextErrorLine();

  // Its exit status.
  ExitStatus waitForExit();

  // The unread rest of its output, and its errors, once it has ended.
  std::string restOfOutput();
  std::string errors();

 private:
  ProcessId process_ = -1;
  bool ended_ = false;
  UniqueFd input_;
  UniqueFd output_;
  UniqueFd errors_;
};

// Runs a test of this program alone in a process of a user without rights and groups, and expects
// it to pass or to be skipped; skips it if that user can't reach the program.
void runTestAsNobody(const std::string& name);

// A service manager's datagram socket.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path);

  // Waits for the next announcement.
  std::string next();
  // Whether another one has arrived.
  bool hasMore() const;

 private:
  UniqueFd socket_;
};

}  // namespace platform
