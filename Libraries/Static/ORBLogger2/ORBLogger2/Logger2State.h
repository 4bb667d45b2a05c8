#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>

#include "Libraries/Static/ORBLogger2/ORBLogger2/WorkQueue.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/SerialQueue.h"

// What logger 2 holds for the whole process. `main` makes one and binds it; the functions of
// ORBLogger2.h, which have the meaning of the members here, work on the one that is bound.
//
// Any thread may use it. A line that was logged is written also when this is gone already, as long
// as `systemLog` and `queues` live.
class Logger2State {
 public:
  // Both outlive this and every queue made here.
  Logger2State(platform::SystemLog& systemLog, platform::SerialQueues& queues);
  Logger2State(const Logger2State&) = delete;
  Logger2State& operator=(const Logger2State&) = delete;
  ~Logger2State();

  void initDefault();
  void processDefaultOpen(std::string_view ident);
  void open(std::string_view ident, std::uint32_t threadNumber);
  void close(std::uint32_t threadNumber);
  void log(std::uint32_t threadNumber, int level, std::string_view message);

  // Shared with the table and with the block that writes what waits.
  std::shared_ptr<platform::SerialQueue> queueFor(std::uint32_t threadNumber);

 private:
  // A queue under its key, or the number of its users under the key with ".count". The table owns a
  // queue together with the block that writes what waits on it.
  using TableValue = std::variant<std::shared_ptr<WorkQueue>, int>;
  struct KeyHash {
    using is_transparent = void;
    // Keys differ at their end; a line of the log is not to pay for the rest.
    std::size_t operator()(std::string_view key) const {
      constexpr std::size_t kTail = 8;
      return std::hash<std::string_view>{}(key.substr(key.size() - std::min(kTail, key.size())));
    }
  };
  using Table = std::unordered_map<std::string, TableValue, KeyHash, std::equal_to<>>;

  std::shared_ptr<WorkQueue> makeWorkQueue(std::string label, std::string_view ident);
  void openOnControlQueue(std::string_view ident, std::uint32_t threadNumber);
  void closeOnControlQueue(std::uint32_t threadNumber);
  std::shared_ptr<WorkQueue> queueUnder(std::string_view key) const;

  // With the lock held.
  const std::shared_ptr<WorkQueue>* find(std::string_view key) const;
  const std::shared_ptr<WorkQueue>& choose(std::uint32_t threadNumber) const;

  platform::SystemLog& systemLog_;
  platform::SerialQueues& queues_;

  std::once_flag initDefaultOnce_;
  std::once_flag processDefaultOpenOnce_;
  std::shared_ptr<WorkQueue> defaultLogger2ControlQueue_;  // shared with its blocks

  // Changes are made one after the other on the control queue; lines look it up on their own
  // threads. A lock that is hardly ever contended costs less here than any snapshot that a reader
  // takes part in owning.
  mutable std::mutex threadQueuesMutex_;
  std::unique_ptr<Table> threadQueues_;  // null until initDefault()
};

// Makes a state the one that the logger's functions use, until it ends. One at a time; while it
// begins or ends no other thread may be inside one of those functions.
class [[nodiscard]] Logger2Binding {
 public:
  explicit Logger2Binding(Logger2State& state);
  Logger2Binding(const Logger2Binding&) = delete;
  Logger2Binding& operator=(const Logger2Binding&) = delete;
  ~Logger2Binding();
};
