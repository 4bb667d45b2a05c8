#include "Tests/EndToEnd/Tracing.h"

#include <csignal>
#include <fstream>
#include <map>

namespace platform {

bool canTrace() {
  ChildProgram cat({"/bin/cat"}, {});
  ChildProgram strace({"/usr/bin/strace", "-o", "/dev/null", "-p", std::to_string(cat.process())},
                      {});
  const bool isAttached = strace.nextErrorLine().ends_with(" attached");
  strace.signal(SIGTERM);
  strace.waitForExit();
  return isAttached;
}

Tracer::Tracer(ProcessId process, std::vector<std::string> options, const std::string& output) {
  std::vector<std::string> arguments{"/usr/bin/strace", "-o", output};
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.insert(arguments.end(), {"-p", std::to_string(process)});
  strace_ = std::make_unique<ChildProgram>(arguments, std::vector<std::string>{});
  nextMessage();
}

Tracer::~Tracer() {
  strace_->signal(SIGTERM);  // It detaches from the program.
  strace_->waitForExit();
}

std::vector<TracedCall> callsIn(const std::string& traceFile, const std::string& prefix) {
  std::vector<TracedCall> calls;
  std::map<std::string, int> numbers;
  std::ifstream file(traceFile);
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(prefix)) continue;
    line.erase(0, line.find_first_not_of(' ', prefix.size()));
    const std::string name = line.substr(0, line.find('('));
    if (name.empty() ||
        name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789") != name.npos) {
      continue;  // A signal, or the rest of an interrupted call.
    }
    calls.push_back({name, ++numbers[name]});
  }
  return calls;
}

}  // namespace platform
