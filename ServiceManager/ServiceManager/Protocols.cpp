#include "ServiceManager/ServiceManager/Protocols.h"

using namespace platform;

void addServiceManagerProtocols(ProtocolTable& protocols) {
  using enum MethodDescription::Kind;
  const auto add = [&](const char* name, std::initializer_list<MethodDescription> methods) {
    protocols.add(name, Protocol(name, methods));
  };
  add(kORBServiceManagerInstallerProtocol,
      {{"evaluateServices", kTwoWay}, {"shutdownServices:", kTwoWay}});
  add(kORBServiceManagerUserInterfaceProtocol, {{"registerClient:", kOneWay},
                                                {"services", kTwoWay},
                                                {"servicesAfter:", kTwoWay},
                                                {"pidForService:", kTwoWay},
                                                {"lastExitStatusForService:", kTwoWay},
                                                {"stopServices:", kOneWay},
                                                {"startServices:", kOneWay}});
  add(kORBServiceManagerUserInterfaceDelegateProtocol, {{"jobStatusDidChangeWithInfo:", kTwoWay}});
  add(kServiceManagerAuthProtocol, {{"retrieveKey", kTwoWay}});
  add(kServiceManagerHealthProtocol,
      {{"isReadyToReport", kTwoWay}, {"getHealthStateForServices", kTwoWay}});
  add(kORBServiceManagerOperatorProtocol, {{"overview", kTwoWay},
                                           {"overviewFrom:", kTwoWay},
                                           {"healthRecord", kTwoWay},
                                           {"healthRecordFrom:", kTwoWay},
                                           {"entriesOfServices:", kTwoWay},
                                           {"factsOfService:", kTwoWay},
                                           {"jobsOfServices:", kTwoWay},
                                           {"treesOfServices:", kTwoWay},
                                           {"awaitServices:", kTwoWay},
                                           {"eventsAfter:", kTwoWay},
                                           {"extensions", kTwoWay},
                                           {"reasonsOfServices:", kTwoWay}});
  add(kORBServiceManagerXPCInterfaceProtocol,
      {{"signatureWithReply:", kTwoWay},
       {"registerXPCListenerEndpoint:forPasskey:withName:withReply:", kTwoWay},
       {"xpcListenerEndpointForPasskey:withName:withReply:", kTwoWay}});
  add(kORBExecutableInfoProtocol, {{"requestExecutableInfo:withReply:", kTwoWay}});
  add(kORBServiceManagerConfigurationServerStatusProtocol, {{"isServerUp", kTwoWay}});
}
