#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <vantor/Api.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

struct ProgramParts;

// From syslog: the smaller, the more severe.
enum class LogLevel { kError = 3, kWarning = 4, kNotice = 5, kInfo = 6, kDebug = 7 };

struct Notification {
  std::string name;
  std::optional<std::string>
      object;      // its subject, for instance the settings server that posted it
  Value userInfo;  // a dictionary, or nil
};

// Ends an observation when it is destroyed: its handler does not run after that. The handler itself
// may destroy it. Belongs to the main thread.
class VANTOR_KIT_API Observation {
 public:
  virtual ~Observation();
};

// A program of the product: a background service, or a command. Make one first in main(), before
// other threads, and destroy it last.
//
// The thread that makes it is the main thread. Everything of the library belongs to that thread,
// except where a comment says otherwise. A function blocks only if its comment says so. Handlers
// run on the main thread while run() runs. They must not throw.
class VANTOR_KIT_API Program {
 public:
  // Finds the installation that the running program belongs to: the nearest folder above it with
  // etc/vantor/platform.plist, else "/". Fails if that file can't be read.
  static Result<std::unique_ptr<Program>> make();

  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program();

  // The last part of the path of the running program.
  const std::string& name() const;
  // The absolute path of the running program, without symbolic links. Files of the product lie
  // beside it.
  const std::string& path() const;
  // The Info.plist of the bundle that the program lies in, empty if it lies in none.
  Dictionary bundleInfo() const;
  // The folder of the installation, "/" if it is that of the machine. Paths of the product are
  // below it.
  const std::string& root() const;

  // Writes a line into the product's log, under the name of the program. Never blocks: if the log
  // does not keep up, lines are dropped and counted. Any thread may call it.
  void log(LogLevel level, std::string_view text) const;

  // Runs as a background service: calls `started`, tells the job host that it is ready, serves its
  // requests until it is asked to end (SIGTERM, SIGINT), calls `ending`, and returns the exit
  // status for main(). Call it once. An empty function is left out.
  //
  // The product's service manager waits for a catalogue's "Notification" only, which `started`
  // posts.
  int run(const std::function<void()>& started, const std::function<void()>& ending);

  // Runs `action` on the main thread, after what is under way there. Any thread may call it.
  void perform(std::function<void()> action);

  // Announces something to all programs of the product that observe the name; nobody answers. The
  // user info is a dictionary or nil. All together have 64 KiB at most. A notification that can't
  // be sent is logged and dropped. Only root and the users of etc/vantor/notification-bus.d may
  // post. Any thread may call it, after the first call of post() or observe() on the main thread.
  void post(std::string_view name, const Value& userInfo = {},
            const std::optional<std::string>& object = {});

  // Calls `handler` for each notification of that name that is posted from now on, of any object.
  // Blocks for 2 s at most, until the bus has confirmed it. While the bus is being restarted,
  // notifications are missed.
  std::unique_ptr<Observation> observe(std::string_view name,
                                       std::function<void(const Notification&)> handler);

  // For the library itself.
  ProgramParts& parts() const { return *parts_; }

 private:
  explicit Program(std::unique_ptr<ProgramParts> parts);

  const std::unique_ptr<ProgramParts> parts_;
};

}  // namespace vantor
