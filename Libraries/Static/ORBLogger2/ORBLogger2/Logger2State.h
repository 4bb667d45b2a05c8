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
#include "Platform/Logging/LogFields.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/SerialQueue.h"

// The state of logger 2 for the whole process. `main` makes one and binds it; the functions of
// ORBLogger2.h call the members of the same meaning on the bound state.
//
// Any thread may use it. Lines that were logged are written even after this has been destroyed, as
// long as `systemLog` and `queues` live.
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
  void log(std::uint32_t threadNumber, int level, std::string_view message,
           const platform::LogFields& fields);

  // Shared with the table and with the block that writes pending lines.
  std::shared_ptr<platform::SerialQueue> queueFor(std::uint32_t threadNumber);

 private:
  // A queue under its key, or the number of its users under the key with ".count". The table shares
  // a queue with the block that writes its pending lines.
  using TableValue = std::variant<std::shared_ptr<WorkQueue>, int>;
  struct KeyHash {
    using is_transparent = void;
    // Keys differ at their end; hashing the rest would only slow down each line.
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

  // Requires the lock.
  const std::shared_ptr<WorkQueue>* find(std::string_view key) const;
  const std::shared_ptr<WorkQueue>& choose(std::uint32_t threadNumber) const;

  platform::SystemLog& systemLog_;
  platform::SerialQueues& queues_;

  std::once_flag initDefaultOnce_;
  std::once_flag processDefaultOpenOnce_;
  std::shared_ptr<WorkQueue> defaultLogger2ControlQueue_;  // shared with its blocks

  // Changes run one after the other on the control queue; lines look their queue up on their own
  // threads. This lock is hardly ever contended, and costs less than a snapshot that every reader
  // would share.
  mutable std::mutex threadQueuesMutex_;
  std::unique_ptr<Table> threadQueues_;  // null until initDefault()
};

// Binds a state: the logger's functions use it until this ends. Only one binding exists at a time,
// and while it begins or ends no other thread may be inside one of those functions.
class [[nodiscard]] Logger2Binding {
 public:
  explicit Logger2Binding(Logger2State& state);
  Logger2Binding(const Logger2Binding&) = delete;
  Logger2Binding& operator=(const Logger2Binding&) = delete;
  ~Logger2Binding();
};
