#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"

namespace platform {

// A real program that a test started and speaks to through its standard files. Every wait ends
// after a minute at the latest, as a failure of the test. A program that still runs at the end is
// killed.
class ChildProgram {
 public:
  // `arguments` begin with the program's path. It gets no environment but `environment`, each as
  // "NAME=VALUE", and what the sanitizers read.
  ChildProgram(std::vector<std::string> arguments, std::vector<std::string> environment);
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;
  ~ChildProgram();

  ProcessId process() const { return process_; }
  void signal(int number) const;
  void closeInput() { input_.reset(); }
  // Gives it a line to read; what has ended takes none.
  void send(const std::string& line) const;

  // The next line of its output, without the line end.
  std::string nextLine();
  // The same, or nothing when the program has closed its output.
  std::optional<std::string> nextLineIfAny();
  // The same of its errors.
  std::string nextErrorLine();

  // How it ended.
  ExitStatus waitForExit();

  // What has not been read of its output, and its errors; once it has ended.
  std::string restOfOutput();
  std::string errors();

 private:
  ProcessId process_ = -1;
  bool ended_ = false;
  UniqueFd input_;
  UniqueFd output_;
  UniqueFd errors_;
};

// Runs a test of this program alone in a process of a user with no rights and no groups, and wants
// it to pass, or to be skipped; skips it where that user can't reach the program.
void runTestAsNobody(const std::string& name);

// A service manager's datagram socket.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path);

  // The next announcement, waited for.
  std::string next();
  // Whether there is another one already.
  bool hasMore() const;

 private:
  UniqueFd socket_;
};

}  // namespace platform
