#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <vantor/Api.h>
#include <vantor/Program.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

struct ServiceManagerParts;

// A service of the product.
struct ServiceState {
  std::string label;
  std::optional<std::int64_t> process;  // nothing if it does not run
  bool isKnown = true;                  // false if the job host did not answer; it may run then
};

// Questions and requests to the service manager.
//
// Each function blocks for its answer: 10 s at most, except where it says otherwise, and 5 s more
// to connect. Root, the user of the job host and the members of the product's group may ask.
class VANTOR_KIT_API ServiceManager {
 public:
  // The program outlives this.
  explicit ServiceManager(Program& program);
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;
  ~ServiceManager();

  // All services of the catalogue. Fails with the reason if the service manager is idle.
  Result<std::vector<ServiceState>> states();

  // Starts services, and stops them until they are started again. Returns when the service manager
  // has the request, and not when it is done. Unknown labels are ignored. The service manager drops
  // and logs requests of an ordinary user beyond 20 a minute.
  Result<void> start(const std::vector<std::string>& labels);
  Result<void> stop(const std::vector<std::string>& labels);

  // Stops these services for an installer; none of them is started until endInstallation(). Blocks
  // until they have ended, for 5 minutes at most. False if one could not be stopped.
  Result<bool> beginInstallation(const std::vector<std::string>& labels);
  // Ends that: the service manager evaluates all services again.
  Result<void> endInstallation();

  // The health record: by label under "Services", with the status and the crashes of each. Nil if
  // this product has none. Reading it changes nothing. Fails with the reason if the service manager
  // is idle.
  Result<Value> health();

 private:
  const std::unique_ptr<ServiceManagerParts> parts_;
};

}  // namespace vantor
