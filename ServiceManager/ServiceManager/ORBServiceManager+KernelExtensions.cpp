#include "ServiceManager/ServiceManager/ORBServiceManager.h"

// No extension can be loaded yet, so a service has none, whatever its entry names.
bool ORBServiceManager::startAssociatedSystemExtensions(const std::string& /*label*/) {
  return true;
}
