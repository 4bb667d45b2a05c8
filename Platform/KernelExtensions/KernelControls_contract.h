#pragma once

// The contract of every implementation of KernelControls. A test program derives a machine from
// ControlsMachine and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, KernelControlsContract, testing::Values(&makeFakeMachine));

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/KernelExtensions/ControlHandler.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/Testing/KernelExtensions/KeepingHandler.h"

namespace platform {

// A machine with the only control "com.example.control", which the test itself does not offer.
class ControlsMachine {
 public:
  static constexpr char kName[] = "com.example.control";

  virtual ~ControlsMachine() = default;

  virtual KernelControls& controls() = 0;
  // The same controls, possibly with a short time-out, for tests in which nobody answers.
  virtual KernelControls& controlsWithShortTimeout() { return controls(); }
  // Offers the control; these handlers answer its clients.
  virtual void offer(const std::string& name, MakeControlHandler makeHandler) = 0;
  // The extension hangs: it neither accepts nor answers any more.
  virtual void hang(const std::string& name) = 0;
  // The extension ends with its connections.
  virtual void end(const std::string& name) = 0;
};

class KernelControlsContract
    : public testing::TestWithParam<std::unique_ptr<ControlsMachine> (*)()> {
 protected:
  static constexpr char kName[] = "com.example.control";

  KernelControlsContract() { offer(kName); }

  void offer(const std::string& name) {
    machine_->offer(name, [this] { return std::make_unique<KeepingHandler>(kept_); });
  }
  std::unique_ptr<ControlSocket> open() {
    auto socket = machine_->controls().openControlSocket();
    EXPECT_TRUE(socket);
    return socket ? *std::move(socket) : nullptr;
  }
  std::unique_ptr<ControlSocket> connected() {
    auto socket = connectToControl(machine_->controls(), kName);
    EXPECT_TRUE(socket) << describe(socket.error());
    return socket ? *std::move(socket) : nullptr;
  }
  void keep(std::uint32_t option, Data bytes) {
    const std::lock_guard lock(kept_.mutex);
    kept_.options.emplace_back(option, std::move(bytes));
  }
  Data kept(std::uint32_t option) {
    return KeepingHandler(kept_).getOption(option).value_or(Data{});
  }
  static Data bytesOf(std::int32_t number) {
    Data bytes(sizeof number);
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
  }

  KeepingHandler::Kept kept_;
  std::unique_ptr<ControlsMachine> machine_ = GetParam()();
};

TEST_P(KernelControlsContract, AConnectedControlHasAProcess) {
  EXPECT_EQ(open()->offeredBy(), 0);
  EXPECT_GT(connected()->offeredBy(), 0);
}

TEST_P(KernelControlsContract, AnUnknownControlIsNotFound) {
  const auto socket = open();
  const auto found = socket->findControl("com.example.other");
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code, ErrorCode::kNotFound);
  EXPECT_FALSE(socket->connect());
}

TEST_P(KernelControlsContract, AnInvalidNameIsRefused) {
  for (const std::string& name :
       {std::string(), std::string("../x"), std::string("a/b"), std::string(".x"),
        std::string("a\0b", 3), std::string(kControlNameBytes + 1, 'a')}) {
    const auto found = open()->findControl(name);
    ASSERT_FALSE(found) << name;
    EXPECT_EQ(found.error().code, ErrorCode::kInvalid) << name;
  }
}

TEST_P(KernelControlsContract, ANameIsCutToItsMaximumEverywhere) {
  EXPECT_EQ(controlName(std::string(kControlNameBytes - 1, 'a')).size(), kControlNameBytes - 1);
  EXPECT_EQ(controlName(std::string(kControlNameBytes, 'a')).size(), kControlNameBytes);
  const std::string longer(kControlNameBytes + 1, 'b');
  offer(longer);
  EXPECT_TRUE(connectToControl(machine_->controls(), longer));
  EXPECT_TRUE(connectToControl(machine_->controls(), longer.substr(0, kControlNameBytes)));
  EXPECT_FALSE(connectToControl(machine_->controls(), longer.substr(0, kControlNameBytes - 1)));
}

TEST_P(KernelControlsContract, AnIntegerIsReturnedWithItsLength) {
  for (const std::int32_t number : {5, 4, 0, -1}) {
    keep(3, bytesOf(number));
    const auto answer = connected()->getIntegerOption(3);
    ASSERT_TRUE(answer) << describe(answer.error());
    EXPECT_EQ(answer->value, number);
    EXPECT_EQ(answer->length, 4u);
  }
}

TEST_P(KernelControlsContract, AnIntegerIsReadFromItsFirstBytes) {
  const auto socket = connected();
  for (const std::size_t length : {0u, 1u, 3u, 4u, 5u, 8u, 4095u, 4096u}) {
    Data bytes(length, 0);
    if (length > 0) bytes[0] = 7;
    keep(3, bytes);
    const auto answer = socket->getIntegerOption(3);
    ASSERT_TRUE(answer) << length;
    EXPECT_EQ(answer->length, length);
    // In the byte order of a little-endian machine.
    EXPECT_EQ(answer->value, length > 0 ? 7 : 0) << length;
  }
}

TEST_P(KernelControlsContract, AnAnswerLongerThanAnyOptionIsAFailure) {
  EXPECT_FALSE(connected()->getIntegerOption(KeepingHandler::kTooLong));
}

TEST_P(KernelControlsContract, BytesAreWrittenUnchanged) {
  const auto socket = connected();
  const Data secret{0, 1, 2, 255, 0, 7, 8, 9};
  ASSERT_TRUE(socket->setOption(5, secret));
  EXPECT_EQ(kept(5), secret);
  ASSERT_TRUE(socket->setOption(6, {}));
  EXPECT_EQ(kept(6), Data{});
  EXPECT_EQ(kept(5), secret);
}

TEST_P(KernelControlsContract, TheSizeOfAnOptionIsLimited) {
  const auto socket = connected();
  EXPECT_TRUE(socket->setOption(5, Data(kMaxControlOptionBytes - 1)));
  EXPECT_TRUE(socket->setOption(5, Data(kMaxControlOptionBytes)));
  const auto refused = socket->setOption(5, Data(kMaxControlOptionBytes + 1));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(kept(5).size(), kMaxControlOptionBytes);
  EXPECT_TRUE(socket->setOption(5, Data(1)));  // Nothing was sent, so the connection stays.
}

TEST_P(KernelControlsContract, ARefusalHasItsErrnoAndTheConnectionStays) {
  const auto socket = connected();
  const auto read = socket->getIntegerOption(KeepingHandler::kRefused);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().osError, EACCES);
  const auto written = socket->setOption(KeepingHandler::kRefusedWithoutReason, Data(1));
  ASSERT_FALSE(written);
  EXPECT_EQ(written.error().osError, EINVAL);
  EXPECT_TRUE(socket->setOption(1, Data(1)));
}

TEST_P(KernelControlsContract, WithoutAConnectionEveryRequestFails) {
  const auto socket = open();
  EXPECT_FALSE(socket->getIntegerOption(3));
  EXPECT_FALSE(socket->setOption(5, Data(1)));
  EXPECT_FALSE(socket->ping());
  EXPECT_FALSE(socket->prepareToUnload());
  ASSERT_TRUE(socket->findControl(kName));
  EXPECT_FALSE(socket->getIntegerOption(3));
}

TEST_P(KernelControlsContract, AnExtensionAnswersAPing) {
  const auto socket = connected();
  EXPECT_TRUE(socket->ping());
  EXPECT_TRUE(socket->ping());
}

TEST_P(KernelControlsContract, AHungExtensionAcceptsButDoesNotAnswer) {
  const auto before = connectToControl(machine_->controlsWithShortTimeout(), kName).value();
  machine_->hang(kName);
  EXPECT_FALSE(before->ping());
  const auto after = connectToControl(machine_->controlsWithShortTimeout(), kName);
  ASSERT_TRUE(after);
  const auto silent = (*after)->ping();
  ASSERT_FALSE(silent);
  EXPECT_EQ(silent.error().osError, ETIMEDOUT);
}

TEST_P(KernelControlsContract, AHungExtensionCostsATimeoutAndTheConnection) {
  keep(3, bytesOf(5));
  const auto socket = connectToControl(machine_->controlsWithShortTimeout(), kName).value();
  machine_->hang(kName);
  const auto answer = socket->getIntegerOption(3);
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().osError, ETIMEDOUT);
  EXPECT_FALSE(socket->setOption(5, Data(1)));
  // A new client can still connect, and finds the same.
  const auto another = connectToControl(machine_->controlsWithShortTimeout(), kName);
  ASSERT_TRUE(another);
  EXPECT_FALSE((*another)->setOption(5, Data(1)));
}

TEST_P(KernelControlsContract, AnEndedExtensionEndsItsConnectionsAndItsControl) {
  const auto socket = connected();
  machine_->end(kName);
  EXPECT_FALSE(socket->getIntegerOption(3));
  EXPECT_FALSE(socket->setOption(5, Data(1)));
  const auto again = connectToControl(machine_->controls(), kName);
  ASSERT_FALSE(again);
  EXPECT_EQ(again.error().code, ErrorCode::kNotFound);
}

TEST_P(KernelControlsContract, AnExtensionWithAnotherClientIsInUse) {
  const auto socket = connected();
  EXPECT_TRUE(socket->prepareToUnload());
  auto another = connected();
  ASSERT_TRUE(another->setOption(1, Data(1)));  // Its answer shows that it has been accepted.
  const auto inUse = socket->prepareToUnload();
  ASSERT_FALSE(inUse);
  EXPECT_EQ(inUse.error().code, ErrorCode::kDenied);
  EXPECT_EQ(inUse.error().osError, EBUSY);
  another.reset();
  EXPECT_TRUE(socket->prepareToUnload());
}

}  // namespace platform
