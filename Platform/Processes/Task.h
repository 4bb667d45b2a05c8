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

// The notice that a file handle has data. Its object is the address of the FileHandle.
inline constexpr char NSFileHandleDataAvailableNotification[] =
    "NSFileHandleDataAvailableNotification";

// The reading end of a pipe for a program's output.
class FileHandle {
 public:
  using ReadabilityHandler = std::function<void(FileHandle&)>;

  virtual ~FileHandle() = default;

  // The next chunk, at most 64 KiB, of the data that was in the pipe at the first call. After that
  // data it returns an empty chunk once, and then starts with the data that is in the pipe by then.
  // Reading until an empty chunk thus ends even if a program writes without end. Never blocks.
  virtual Data availableData() = 0;

  // Whether this platform calls readability handlers; older releases only post the notice below.
  virtual bool respondsToSetReadabilityHandler() const = 0;

  // While the task runs, the handler is called on any thread when there is data, and once at the
  // end of the pipe; only one handler of a task at a time. A null handler is not called. It must
  // not be changed from launch() until waitUntilExit() has returned.
  virtual void setReadabilityHandler(ReadabilityHandler handler) = 0;

  // Posts one notice when there is data, or at the end of the pipe, to the centre of its maker,
  // while the run loop runs or a task is waited for. Does nothing after availableData() has reached
  // the end, because the notices would never end.
  virtual void waitForDataInBackgroundAndNotify() = 0;
};

// The reading ends of a task's two pipes.
struct TaskPipes {
  FileHandle* standardOutput = nullptr;
  FileHandle* standardError = nullptr;
};

// One run of another program. Its standard input is empty. It inherits this program's environment
// and folder, and only the standard descriptors. Belongs to the run loop's thread. The destructor
// kills a program that still runs.
class Task {
 public:
  virtual ~Task() = default;

  // Empty until it is set.
  virtual const std::string& launchPath() const = 0;
  virtual void setLaunchPath(std::string path) = 0;
  // Without the program's own name.
  virtual void setArguments(std::vector<std::string> arguments) = 0;

  // Gives the program a new pipe for each of its outputs; without them it inherits this program's.
  // If the system has no pipe left, launch() fails.
  virtual void makePipes() = 0;
  // Both are null if there are none. They live as long as the task.
  virtual TaskPipes pipes() const = 0;

  // Starts the program, once. A failure raises NSInvalidArgumentException, with "launch path not
  // accessible" if the path is the reason.
  virtual Result<void, NSException> launch() = 0;

  // Blocks until the program has ended. Meanwhile the handlers of its handles are called, and the
  // notices of all handles are posted; nothing else of the run loop is served. At the end the
  // handlers, if any, get the data that is left in its pipes without waiting for more, because
  // another program may still have the writing end.
  //
  // Returns the exit status, or the number of the signal that ended the program; -1 if it was not
  // launched, or somebody else has reaped it.
  virtual int waitUntilExit() = 0;

  // The centre for the notices of its handles.
  virtual NotificationCenter& notificationCenter() = 0;

  // Destroys `object` together with the task.
  virtual void keep(std::shared_ptr<void> object) = 0;
};

// Makes tasks, and outlives them.
class Tasks {
 public:
  virtual ~Tasks() = default;
  virtual std::unique_ptr<Task> newTask() = 0;
};

}  // namespace platform
