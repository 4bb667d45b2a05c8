#include "ServiceManager/ServiceManager/Protocols.h"

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Messages/Protocol.h"

namespace {

using namespace platform;
using Kinds = std::map<std::string, MethodDescription::Kind>;

// A client of a one-way method does not wait; one of a two-way method gets an answer.
TEST(ServiceManagerProtocols, EachMethodHasItsKind) {
  using enum MethodDescription::Kind;
  const std::map<std::string, Kinds> expected{
      {kORBServiceManagerInstallerProtocol,
       {{"evaluateServices", kTwoWay}, {"shutdownServices:", kTwoWay}}},
      {kORBServiceManagerUserInterfaceProtocol,
       {{"registerClient:", kOneWay},
        {"stopServices:", kOneWay},
        {"startServices:", kOneWay},
        {"services", kTwoWay},
        {"servicesAfter:", kTwoWay},
        {"pidForService:", kTwoWay},
        {"lastExitStatusForService:", kTwoWay}}},
      {kORBServiceManagerUserInterfaceDelegateProtocol, {{"jobStatusDidChangeWithInfo:", kTwoWay}}},
      {kServiceManagerAuthProtocol, {{"retrieveKey", kTwoWay}}},
      {kServiceManagerHealthProtocol,
       {{"isReadyToReport", kTwoWay}, {"getHealthStateForServices", kTwoWay}}},
      {kORBServiceManagerConfigurationServerStatusProtocol, {{"isServerUp", kTwoWay}}}};
  ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  for (const auto& [name, kinds] : expected) {
    const Protocol* const protocol = protocols.find(name);
    ASSERT_TRUE(protocol) << name;
    Kinds found;
    for (const MethodDescription& method : protocol->methods())
      found.emplace(method.selector, method.kind);
    EXPECT_EQ(found, kinds) << name;
  }
}

}  // namespace
