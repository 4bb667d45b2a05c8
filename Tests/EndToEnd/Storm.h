#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Values/Time.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonRoot.h"

namespace platform {

enum class Weather { kQuiet, kStorm };

// A daemon with ten healthy services among neighbours that, in a storm, misbehave all at once:
// twenty services crash-loop at different periods, one extension is missing and one offers no
// control, fifty clients of another user answer no notification (if the test is root), and the
// settings server is stopped. On a quiet machine the same services run and nobody misbehaves.
class Storm {
 public:
  static constexpr int kHealthy = 10;
  static constexpr int kCrashing = 20;
  static constexpr int kSilentClients = 50;

  // Returns when everything of this has begun.
  explicit Storm(Weather weather);
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;
  ~Storm();

  DaemonRoot& root() { return root_; }
  bool hasSilentClients() const { return silentClients_.has_value(); }

  static std::string healthy(int number) { return DaemonRoot::label(number % kHealthy); }
  static std::string crashing(int number);
  static constexpr char kNeedsMissing[] = "com.vantor.test.needs.missing";
  static constexpr char kNeedsDeaf[] = "com.vantor.test.needs.deaf";
  // Its switch is at the settings server.
  static constexpr char kSwitched[] = "com.vantor.test.switched";

  // The operator's command: it is expected to succeed with this text in its output. Returns the
  // time that it took.
  Duration control(const std::vector<std::string>& arguments, const std::string& text);
  // From SIGKILL of a healthy service until a client is told of its next process.
  Duration killUntilBack(const std::string& label);
  // From SIGTERM to the end of the daemon, after which the job host starts another one.
  Duration terminate();
  // The private memory of the daemon, in kibibytes.
  long memory();
  // Expects at most one process for each service.
  void expectNoneDoubled() const;

 private:
  Dictionary catalogue() const;
  void beginStorm();

  const Weather weather_;
  DaemonRoot root_;
  std::optional<ChildProgram> silentClients_;
};

}  // namespace platform
