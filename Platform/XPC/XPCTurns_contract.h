#pragma once

// The contract of every XPC for messages that take long to serve, on any transport.

#include <memory>
#include <string>
#include <vector>

#include "Platform/XPC/XPCFixture_contract.h"

namespace platform {

inline constexpr int kForEver = 1'000'000'000;

TEST_P(XPCContract, TheCurrentConnectionIsTheMessagesOwn) {
  std::weak_ptr<NSXPCConnection> served;
  delegate_->object().whileLingering = [&] {
    served = NSXPCConnection::currentConnection()->weak_from_this();
  };
  start();
  call(*client_, "lingerWithReply:");
  EXPECT_EQ(served.lock(), delegate_->accepted.at(0).lock());
  EXPECT_EQ(NSXPCConnection::currentConnection(), nullptr);
}

TEST_P(XPCContract, MessagesBehindALongOneAreServedAfterIt) {
  delegate_->object().turnsToLinger = 200;
  start();
  send(*client_, "lingerWithReply:");
  const std::vector<std::string> behind{"note 1", "note 2"};
  for (const char* text : {"1", "2"}) {
    client_->sendMessage("note:", {Value(text)}, nullptr, nullptr);
  }
  journal_.await(behind.back());
  std::vector<std::string> entries = journal_.entries();
  std::erase_if(entries, [](const std::string& entry) {
    return entry != "lingered" && !entry.starts_with("note ");
  });
  EXPECT_EQ(entries, (std::vector<std::string>{"lingered", behind[0], behind[1]}));
}

TEST_P(XPCContract, OthersAreServedBetweenTheTurnsOfALongMessage) {
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  const auto other = connect();
  call(*other, "echo:withReply:", {Value(1)});
  delegate_->object().turnsToLinger = kForEver;
  for (std::size_t i : {0, 1}) delegate_->accepted.at(i).lock()->suspend();
  send(*client_, "lingerWithReply:");
  other->sendMessage("note:", {Value("short")}, nullptr, nullptr);
  call(*connect(), "echo:withReply:", {Value(1)});  // Both have arrived by now.
  for (std::size_t i : {0, 1}) delegate_->accepted.at(i).lock()->resume();
  journal_.await("lingered");
  EXPECT_EQ(journal_.count("note short"), 1u);
}

TEST_P(XPCContract, ALongMessageLearnsThatItsCallerHasEnded) {
  delegate_->object().whileLingering = [&] {
    EXPECT_FALSE(NSXPCConnection::currentConnection()->isInvalid());
    client_->invalidate();
    journal_.await("invalid");
    std::ignore = listener_->endpoint();  // A turn of the loop that delivers the end.
  };
  delegate_->object().turnsToLinger = kForEver;
  start();
  send(*client_, "lingerWithReply:");
  journal_.await("caller gone");
  journal_.await("server side invalid");
  EXPECT_EQ(journal_.count("lingered"), 0u);
}

}  // namespace platform
