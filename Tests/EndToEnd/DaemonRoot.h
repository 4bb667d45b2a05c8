#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Values/Value.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace platform {

// A platform root with the daemon in it, everything signed by a throw-away authority. Debug lines
// are logged, too. A job host and a private notification bus run there from the beginning, the
// daemon once it is started. The test is one of the product's programs, with a loop of its own.
class DaemonRoot {
 public:
  static constexpr char kDaemon[] = "com.vantor.servicemanager";
  // The product's group, if the test runs as root. It is that of the user 65534.
  static constexpr char kGroup[] = "nogroup";
  static constexpr char kBus[] = "com.vantor.notificationbus";
  // The demo product's configuration server, which every other service waits for.
  static constexpr char kPrimary[] = "com.vantor.test.configd";
  static constexpr char kDidStart[] = "com.vantor.servicemanager.notification.serverdidstart";
  static constexpr char kDidStartError[] =
      "com.vantor.servicemanager.notification.serverdidstartError";
  static constexpr char kEvaluating[] = "Evaluating the system configuration";

  // `configuration` is more of platform.plist, as XML. `prepareLog` is called with the log's empty
  // folder.
  using PrepareLog = std::function<void(const std::string& folder)>;
  explicit DaemonRoot(const std::string& configuration = {}, const PrepareLog& prepareLog = {});
  DaemonRoot(const DaemonRoot&) = delete;
  DaemonRoot& operator=(const DaemonRoot&) = delete;
  // Ends all jobs. A test fails if the daemon has ended by itself, or has written to its standard
  // error, as sanitizers and failed assertions do.
  ~DaemonRoot();

  const std::string& path() const { return root_.folder().path(); }
  const TemporaryFolder& folder() const { return root_.folder(); }
  AsioRunLoop& loop() { return *loop_; }
  DBusPeerTransport& transport() { return transport_; }
  const SystemInformation& system() const { return system_; }
  DistributedNotificationCenter& center() { return *center_; }
  EmbeddedJobs& jobs() { return jobs_; }

  // A service that runs until a signal ends it, restarts at once, and bears its label in the
  // process list. `program` is a name in the folder of the programs.
  static Dictionary service(const std::string& label, const std::string& program = "agent");
  // The configuration server and these services, "com.vantor.test.N", of the installed product.
  static Dictionary catalogue(int services);
  static std::string label(int number) { return "com.vantor.test." + std::to_string(number); }

  // Installs the catalogue in the daemon's bundle and seals that; without a content there is no
  // catalogue.
  void setCatalogue(const Dictionary& catalogue);
  void setCatalogueFile(const std::optional<std::string>& content);
  // The same for the product information.
  void setProductFile(const std::optional<std::string>& content);

  // Signs a program with the key that the root trusts.
  static void sign(const std::string& program);

  std::string daemonProgram() const;
  // Submits the daemon's job; `program` replaces the daemon and executes it in the end.
  void startDaemon(const std::optional<std::string>& program = std::nullopt);
  void remove(std::string_view label);
  // Submits the bus's job, as the constructor does.
  void startBus();
  // Sends the signal to the job's process; if it has none, the test fails and no process gets the
  // signal.
  void kill(std::string_view label, int signal);
  // SIGKILL: the job host starts it again.
  void killDaemon();
  // SIGTERM: it shuts down, and the job host starts it again; returns when it has.
  void endDaemonAndAwaitNext();
  // Call this if something else is about to start the daemon.
  void expectStart() { awaitedStarts_ = starts_ + 1; }
  // Waits for the announcement of the start that one of these functions began.
  void awaitStart();
  // The job's process, 0 if it has none.
  ProcessId processOf(std::string_view label);
  // Every process that runs under one of the catalogue's labels, by label.
  std::vector<std::pair<std::string, ProcessId>> processes() const;

  // Serves the loop until the condition holds; it is evaluated after each line of the log, each
  // notification that the test observes, and each changed(). Fails after a minute.
  void await(std::string_view what, const std::function<bool()>& condition);
  void changed();
  // Waits until this many lines of the whole log contain the text.
  void awaitLog(std::string_view text, std::size_t count = 1);
  std::size_t logCount(std::string_view text);
  // Whether the text occurs after the last occurrence of `mark`.
  bool logHasBehind(std::string_view mark, std::string_view text);
  // The last lines, for a failure's message.
  std::string logTail();

  std::size_t starts() const { return starts_; }
  const std::vector<Value>& startErrors() const { return startErrors_; }

  JobHostRoot& host() { return root_; }

 private:
  void readLog();

  JobHostRoot root_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  DBusPeerTransport transport_{*loop_};
  LinuxSystemInformation system_;
  FakeLogSink sink_;
  SystemLog systemLog_{sink_, "test"};
  JobHostClient client_;
  EmbeddedJobs jobs_{client_};
  std::unique_ptr<DistributedNotificationCenter> center_;
  std::vector<std::unique_ptr<DistributedNotificationCenter::Observation>> observations_;
  std::size_t starts_ = 0;
  std::size_t awaitedStarts_ = 0;
  std::vector<Value> startErrors_;

  UniqueFd logNotices_;
  std::unique_ptr<RunLoopHandle> logWatch_;
  UniqueFd logFile_;
  std::string log_;
  const std::function<bool()>* awaited_ = nullptr;
};

}  // namespace platform
