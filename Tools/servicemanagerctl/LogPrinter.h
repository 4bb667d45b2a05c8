#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "Tools/servicemanagerctl/LabelLog.h"

// Prints to standard error the log's new lines about some services, and their output, while this
// program waits for an answer. Its destructor prints the rest.
class LogPrinter {
 public:
  // Lines from now on.
  explicit LogPrinter(LabelLog log);
  LogPrinter(const LogPrinter&) = delete;
  LogPrinter& operator=(const LogPrinter&) = delete;
  ~LogPrinter();

 private:
  void run();
  // False if the log can no longer be read.
  bool printNew();

  LabelLog log_;
  std::mutex mutex_;
  std::condition_variable ended_;
  bool isEnding_ = false;
  std::thread thread_;
};
