#pragma once

#include <memory>

#include "Platform/Messages/Protocol.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"
#include "ServiceManager/ServiceManager/OperatorEvents.h"
#include "ServiceManager/ServiceManager/OperatorPictures.h"
#include "ServiceManager/ServiceManager/OperatorWorker.h"

// The operator's server with its name, on the operator's thread, so that it answers also while the
// main thread is busy. Belongs to the main thread.
class VendedOperatorServer {
 public:
  // All of it outlives the server, and may be used on any thread but for the worker.
  struct Environment {
    OperatorWorker worker;
    std::shared_ptr<OperatorPictures> pictures;
    ORBServiceManagerOperatorServer::MainThread main;
    std::shared_ptr<const MainThreadWork> mainThreadWork;
    std::shared_ptr<OperatorEvents> events;
    const platform::ProtocolTable& protocols;
    const platform::SystemInformation& system;
  };

  explicit VendedOperatorServer(const Environment& environment);
  VendedOperatorServer(const VendedOperatorServer&) = delete;
  VendedOperatorServer& operator=(const VendedOperatorServer&) = delete;
  // The server ends later, on its thread.
  ~VendedOperatorServer();

 private:
  struct Parts;

  const OperatorWorker worker_;
  // Shared with the pieces of work that make and end its content. It is used on the operator's
  // thread only.
  std::shared_ptr<std::unique_ptr<Parts>> parts_;
};
