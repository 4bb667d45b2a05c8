#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <sys/types.h>

#include "JobHost/Output/OutputLines.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace jobhost {

// Reads what processes print from named pipes, one for each label, and passes it to a sink in
// lines. A process opens its pipe for reading and writing, so it can always write: without a host
// nothing breaks, and what it prints waits in the pipe, whose name tells the next host where. The
// last process of a label closes the pipe, and then its name is removed.
//
// A thread reads, so that a flood does not hold up the host. It is started by the first pipe, never
// waits for a disk, and blocks all signals.
class OutputReader {
 public:
  // `folder` holds the pipes. `sink` takes lines without waiting, with the pipe's name as their
  // ident; it outlives this.
  static platform::Result<std::unique_ptr<OutputReader>> create(
      std::string folder, platform::LogSink& sink, std::function<platform::Instant()> now);
  OutputReader(const OutputReader&) = delete;
  OutputReader& operator=(const OutputReader&) = delete;
  // Passes on what has been printed until now.
  ~OutputReader();

  // Opens the pipe of a name for a process of this user.
  platform::Result<platform::UniqueFd> open(const std::string& name, uid_t user);

  // Goes on with the pipes that processes of an earlier host print to, and removes the others.
  platform::Result<void> takeOver();

  // Until start(), nothing is read. The lines that have been read are passed on first.
  void stop();
  platform::Result<void> start();

 private:
  struct Stream {
    std::string name;
    platform::UniqueFd pipe;
    OutputLines lines;
  };

  OutputReader(std::string folder, platform::LogSink& sink, std::function<platform::Instant()> now,
               platform::UniqueFd epoll, platform::UniqueFd wake);

  std::string pathOf(const std::string& name) const { return folder_ + "/" + name; }
  platform::Result<Stream*> add(const std::string& name);
  platform::Result<void> startIfStopped();
  // Ends the thread; then this thread owns the streams.
  void halt();
  void run();
  enum class Found { kBytes, kNothing, kNoWriter };
  Found readOnce(Stream& stream);
  void removeIfUnused(Stream& stream);
  void remove(Stream& stream);
  void tickUnfinished();

  const std::string folder_;
  platform::LogSink& sink_;
  const std::function<platform::Instant()> now_;
  const platform::UniqueFd epoll_;
  const platform::UniqueFd wake_;

  // Guards the map. A stream itself belongs to the thread that reads.
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Stream>> streams_;
  std::set<Stream*> unfinished_;  // of the thread
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

}  // namespace jobhost
