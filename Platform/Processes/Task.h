#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

namespace platform {

// The notice that a file handle has something to read. Its object is the address of a FileHandle.
inline constexpr char NSFileHandleDataAvailableNotification[] =
    "NSFileHandleDataAvailableNotification";

// The end of a pipe from which a program's output is read.
class FileHandle {
 public:
  using ReadabilityHandler = std::function<void(FileHandle&)>;

  virtual ~FileHandle() = default;

  // The next chunk, at most 64 KiB, of what the pipe held when this was first called; empty, once,
  // when that is used up, and then what it holds is looked at anew. So reading until nothing comes
  // ends also where somebody writes without end. Never waits.
  virtual Data availableData() = 0;

  // Whether this platform calls readability handlers; older ones have the notice below alone.
  virtual bool respondsToSetReadabilityHandler() const = 0;

  // While the task runs the handler is called on a thread of the platform's choice whenever there
  // is something to read, and once at the end of the pipe; one handler of a task at a time. Null
  // for none. Not to be changed from the launch until waitUntilExit() has returned.
  virtual void setReadabilityHandler(ReadabilityHandler handler) = 0;

  // Posts one notice when there is something to read, or at the end of the pipe, to the centre of
  // its maker: while the run loop is run, or a task is waited for. Does nothing once
  // availableData() has met the end, or there would be no end to the notices.
  virtual void waitForDataInBackgroundAndNotify() = 0;
};

// The reading ends of a task's two pipes.
struct TaskPipes {
  FileHandle* standardOutput = nullptr;
  FileHandle* standardError = nullptr;
};

// One run of another program. Its standard input is empty, its environment and its folder are this
// program's; of descriptors it gets the standard ones alone. Belongs to the run loop's thread. A
// program that still runs when its task is destroyed is killed.
class Task {
 public:
  virtual ~Task() = default;

  // Empty until it is set.
  virtual const std::string& launchPath() const = 0;
  virtual void setLaunchPath(std::string path) = 0;
  // Without the program's own name.
  virtual void setArguments(std::vector<std::string> arguments) = 0;

  // Gives the program a new pipe for each of its outputs; without them it has this program's.
  // Where the system has no pipe to give, launch() fails.
  virtual void makePipes() = 0;
  // Both null as long as there are none. They live as long as the task.
  virtual TaskPipes pipes() const = 0;

  // Starts the program, once. What keeps it from starting is raised: NSInvalidArgumentException,
  // "launch path not accessible" where it is the path's fault.
  virtual Result<void, NSException> launch() = 0;

  // Blocks until the program has ended. Meanwhile the handlers of its handles are called, and the
  // notices of all handles posted; nothing else of the run loop is served. What its pipes hold at
  // its end is given to the handlers, if there are any, without waiting for more: another program
  // may have been left with the other end.
  //
  // Returns the exit status, or the number of the signal that ended the program; -1 where it was
  // not launched, or somebody else has taken its status.
  virtual int waitUntilExit() = 0;

  // Where the notices of its handles are posted.
  virtual NotificationCenter& notificationCenter() = 0;

  // Destroys `object` together with the task.
  virtual void keep(std::shared_ptr<void> object) = 0;
};

// Makes tasks. Outlives them.
class Tasks {
 public:
  virtual ~Tasks() = default;
  virtual std::unique_ptr<Task> newTask() = 0;
};

}  // namespace platform
