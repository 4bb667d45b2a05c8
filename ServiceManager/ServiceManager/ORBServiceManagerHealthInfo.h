#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "ServiceManager/Supervision/ServiceHealth.h"

// The state of each service, the number of times that it ended by itself, and the server that the
// product's health reporter asks.
//
// A report is queued and returns at once; a query waits for the queue and so sees every report made
// before it. Everything but the queue's own work belongs to the main thread. Nothing fails.
class ORBServiceManagerHealthInfo final : public ServiceHealth, public platform::MessageReceiver {
 public:
  static constexpr char kClassName[] = "ORBServiceManagerHealthInfo";
  static constexpr char kConnectionName[] = "ServiceManagerHealthInfo";
  static constexpr char kQueueLabel[] = "com.vantor.servicemanager.servicemanagerhealthqueue";
  static constexpr std::int64_t kDefaultCrashLimit = 3;

  // All of it outlives the health information.
  struct Environment {
    platform::SerialQueues& queues;
    platform::NamedConnections& connections;
    const platform::ProtocolTable& protocols;
    const platform::SystemInformation& system;
  };

  // Registers the server's name. If that fails, the health reporter can't connect, and everything
  // else works.
  explicit ORBServiceManagerHealthInfo(const Environment& environment);
  ORBServiceManagerHealthInfo(const ORBServiceManagerHealthInfo&) = delete;
  ORBServiceManagerHealthInfo& operator=(const ORBServiceManagerHealthInfo&) = delete;
  // Waits for the reports that are queued.
  ~ORBServiceManagerHealthInfo() override;

  // Reports.
  void setMonitoredServices(const std::vector<std::string>& labels) override;
  void stopMonitoringForService(std::string_view label) override;
  void reportUnreadyStateForService(std::string_view label) override;
  void reportStartForService(std::string_view label) override;
  void reportStopForService(std::string_view label) override;
  // A process has ended without having been told to.
  void reportForcedStopForService(std::string_view label) override;
  void reportIntallerEventStartedForService(std::string_view label) override;
  void reportInstallerEventFinished() override;

  // Queries.
  std::set<std::string> problemServices() override;
  // Any thread; this does not wait for reports that are still queued.
  bool isReadyToReport() const { return readyToReport_; }
  // By name, kHealthy or kUnhealthy: what the health reporter reads. Clears all crash counters.
  platform::Value getHealthStateForServices();
  platform::Value healthRecord() override;
  void takeHealthRecord(std::move_only_function<void(platform::Value record)> take) override;

  // Properties.
  const std::shared_ptr<platform::SerialQueue>& taskQueue() const { return taskQueue_; }
  platform::Dictionary serviceStates();
  platform::Dictionary crashCounters();
  void setReadyToReport(bool ready) override;
  // Forced stops at which a service is unhealthy whatever its status.
  std::int64_t crashLimit();
  void setCrashLimit(std::int64_t limit);
  std::map<std::string, std::string> serviceNamesToReport();
  void setServiceNamesToReport(std::map<std::string, std::string> names) override;
  const std::unique_ptr<KLXConnectionAuthenticator>& connectionAuthenticator() const {
    return connectionAuthenticator_;
  }
  const std::shared_ptr<platform::NSConnection>& distantConnection() const {
    return distantConnection_;
  }

  // The server's messages, by their selectors.
  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

 private:
  // On the queue.
  void setStatus(std::string_view label, HealthStatus status);
  std::optional<HealthStatus> status(std::string_view label) const;
  std::string nameToReport(const std::string& label) const;
  // The service's value in a summary; nothing if the summary leaves the service out.
  std::optional<std::int64_t> health(const std::string& label, HealthStatus status) const;
  platform::Value summarize();
  bool isOnRecord(const std::string& label) const;
  platform::Value recordOf(const std::string& label) const;
  void updateRecords();
  platform::Value record();
  void noteChange(std::string_view label);
  void noteChangeOfAll();

  // Sets the status and logs the line, both on the queue.
  void report(std::string_view label, HealthStatus status, const char* what);

  // Shared with the blocks that it has yet to run.
  const std::shared_ptr<platform::SerialQueue> taskQueue_;

  // Used on the queue alone.
  platform::Dictionary serviceStates_;  // label to status
  platform::Dictionary crashCounters_;  // label to forced stops since the last summary
  std::int64_t crashLimit_ = kDefaultCrashLimit;
  std::map<std::string, std::string> serviceNamesToReport_;
  // Each picture for the operator takes the record of all services, and few of them have changed
  // since the last one.
  platform::Dictionary records_;   // by label
  std::set<std::string> changed_;  // the labels whose record is outdated
  platform::Value services_;       // `records_`, nil if it is outdated

  std::atomic<bool> readyToReport_ = false;  // written on the queue

  const std::unique_ptr<KLXConnectionAuthenticator> connectionAuthenticator_;
  // Shared with its connections.
  const std::shared_ptr<platform::NSProtocolChecker> rootObject_;
  const std::shared_ptr<platform::NSConnection> distantConnection_;
};
