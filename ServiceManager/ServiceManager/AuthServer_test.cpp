#include "ServiceManager/ServiceManager/AuthServer.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;

TEST(AuthServerTest, TheKeyIsTheSecretOfThisRun) {
  Value secret = Data{1, 2, 3, 4, 5, 6, 7, 8};
  AuthServer server(secret);
  EXPECT_EQ(server.receiveMessage("retrieveKey", {}), secret);
  secret = Data{8, 7, 6, 5, 4, 3, 2, 1};
  EXPECT_EQ(server.receiveMessage("retrieveKey", {}), secret);
}

TEST(AuthServerTest, AnyOtherMessageRaises) {
  const Value secret = Data{1, 2, 3, 4, 5, 6, 7, 8};
  AuthServer server(secret);
  for (const char* selector : {"", "retrieveKey:", "secret", "release", "services"}) {
    const MessageResult result = server.receiveMessage(selector, {});
    ASSERT_FALSE(result) << selector;
    EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
  }
}

}  // namespace
