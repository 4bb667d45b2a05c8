#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "JobHost/Output/OutputLines.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace jobhost {

// Reads what processes print from named pipes, and passes it to a sink in lines. Each start of a
// label has a pipe of its own, so open() never opens one that a process may hold locked. The
// process gets it opened for reading and writing, so it can always write: without a host nothing
// breaks, and what it prints waits in the pipe, whose name tells the next host where. When the last
// process has closed the pipe, its name is removed.
//
// A thread reads, so that a flood does not hold up the host. It is started by the first pipe, never
// waits for a disk, and blocks all signals.
class OutputReader {
 public:
  // `folder` holds the pipes. `sink` takes lines without waiting, with the name of open() as
  // their ident; it outlives this.
  static platform::Result<std::unique_ptr<OutputReader>> create(
      std::string folder, platform::LogSink& sink, std::function<platform::Instant()> now);
  OutputReader(const OutputReader&) = delete;
  OutputReader& operator=(const OutputReader&) = delete;
  // Passes on what has been printed until now.
  ~OutputReader();

  // Makes a pipe for the next process of that name, which must run as this process's own user: the
  // owner of a pipe can make each open() and read() of it wait.
  platform::Result<platform::UniqueFd> open(const std::string& name);

  // Goes on with the pipes that processes of an earlier host print to, and removes the others.
  // After a failure it may be called again, and skips the pipes that are read.
  platform::Result<void> takeOver();

  // Until start(), nothing is read. The lines that have been read are passed on first.
  void stop();
  platform::Result<void> start();

 private:
  struct Stream {
    std::string pipeName;
    platform::UniqueFd pipe;
    OutputLines lines;
  };

  OutputReader(std::string folder, platform::LogSink& sink, std::function<platform::Instant()> now,
               platform::UniqueFd epoll, platform::UniqueFd wake);

  std::string pathOf(const std::string& pipeName) const { return folder_ + "/" + pipeName; }
  bool hasRoomFor(const std::string& name) const;
  platform::Result<std::string> makePipe(const std::string& name);
  platform::Result<platform::UniqueFd> openBothEnds(const std::string& pipeName);
  platform::Result<Stream*> add(const std::string& pipeName);
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

  std::uint64_t starts_ = 0;

  // Guards the map, which has the names of pipes. A stream itself belongs to the thread that reads.
  std::mutex mutex_;
  std::map<std::string, std::unique_ptr<Stream>> streams_;
  std::set<Stream*> unfinished_;  // of the thread
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

}  // namespace jobhost
