// Sends digests to another program: by copy, as the entries of their archive.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Shared/Crypto/HashValue.h"

namespace {

using namespace platform;

const Protocol kProtocol("DigestProtocol", {{"exchange:"}});

// Decodes the digest that it gets, keeps it, and answers with the digest of its description.
class DigestServer final : public MessageReceiver {
 public:
  MessageResult receiveMessage(std::string_view /*exchange*/, const Array& arguments) override {
    const Value& argument = arguments.at(0);
    if (!argument.dictionary()) return std::unexpected(NSException{"NotADigest", "no archive", {}});
    const auto decoded = HashValue::initWithCoder(*argument.dictionary());
    if (!decoded) return std::unexpected(NSException{"NotADigest", decoded.error().context, {}});
    received = *decoded;
    const std::string text = decoded->description();
    return Value(HashValue::sha256HashWithData(Data(text.begin(), text.end())).encodeWithCoder());
  }

  std::optional<HashValue> received;
};

class HashValueConnectionTest : public testing::Test {
 protected:
  HashValueConnectionTest() {
    vended_->setDelegate(&serverDelegate_);
    vended_->setRootObject(std::make_shared<NSProtocolChecker>(&server_, &kProtocol));
    EXPECT_TRUE(vended_->registerName("digests"));
    client_ = program_.connections.connectionWithRegisteredName("digests");
    client_->setDelegate(&clientDelegate_);
  }

  MessageResult exchange(Value argument) {
    const auto root = client_->rootProxy();
    if (!root) return std::unexpected(root.error());
    return (*root)->sendMessage("exchange:", {std::move(argument)});
  }

  static std::string pathOf(std::string_view name) { return std::string(name); }

  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  FakePeerTransport serverTransport_{network_, {200, 0, 0}};
  ConnectedProgram program_{loop_, transport_, pathOf};
  ConnectedProgram serverProgram_{loop_, serverTransport_, pathOf};
  DigestServer server_;
  TokenDelegate serverDelegate_{"server", "client"};
  TokenDelegate clientDelegate_{"client", "server"};
  std::shared_ptr<NSConnection> vended_ = serverProgram_.connections.makeConnection();
  std::shared_ptr<NSConnection> client_;
};

TEST_F(HashValueConnectionTest, ADigestOfEachTypeArrivesAndComesBackEqual) {
  const Data data{'a', 'b', 'c'};
  for (const HashValue& sent :
       {HashValue::md5HashWithData(data), HashValue::sha256HashWithData(data)}) {
    const auto answer = exchange(sent.encodeWithCoder());
    ASSERT_TRUE(answer.has_value()) << answer.error().reason;
    ASSERT_NE(answer->dictionary(), nullptr);
    EXPECT_EQ(server_.received, sent);
    const std::string text = sent.description();
    EXPECT_EQ(HashValue::initWithCoder(*answer->dictionary()),
              HashValue::sha256HashWithData(Data(text.begin(), text.end())));
  }
}

TEST_F(HashValueConnectionTest, AnInvalidArchiveIsAnExceptionAndTheConnectionStays) {
  Dictionary forged = HashValue::md5HashWithData({}).encodeWithCoder();
  forged.set("type", std::int64_t{1} << 40);
  const auto refused = exchange(forged);
  ASSERT_FALSE(refused.has_value());
  EXPECT_EQ(refused.error().name, "NotADigest");
  EXPECT_EQ(refused.error().reason, "\"type\" must be a 32-bit integer");
  EXPECT_TRUE(exchange(HashValue::md5HashWithData({}).encodeWithCoder()).has_value());
}

}  // namespace
