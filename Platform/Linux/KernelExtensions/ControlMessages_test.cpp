#include "Platform/Linux/KernelExtensions/ControlMessages.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/KernelExtensions/ControlFolder.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Values/Value.h"

namespace platform {
namespace {

using testing::HasSubstr;

constexpr Duration kMessageTimeout = std::chrono::milliseconds(10);

// An extension that breaks the protocol: it sends its answers before the requests.
class MisbehavingExtensionTest : public testing::Test {
 protected:
  static constexpr char kName[] = "com.example.crude";

  MisbehavingExtensionTest() {
    EXPECT_TRUE(makeControlFolder(root_.path()));
    const std::string path = controlFolder(root_.path()) + "/" + kName;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    EXPECT_EQ(::bind(listening_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    EXPECT_EQ(::listen(listening_.get(), 4), 0);
    socket_ = connectToControl(controls_, kName).value();
    accepted_ = UniqueFd(::accept(listening_.get(), nullptr, nullptr));
    EXPECT_TRUE(accepted_);
  }

  void answer(std::size_t bytes, std::int32_t errorNumber = 0) {
    std::vector<char> packet(std::max(bytes, sizeof errorNumber), 1);
    std::memcpy(packet.data(), &errorNumber, sizeof errorNumber);
    EXPECT_EQ(::send(accepted_.get(), packet.data(), bytes, 0), static_cast<ssize_t>(bytes));
  }
  // Whether the client has closed the socket: a late answer must not count for a later request.
  bool isClosedByClient() {
    const auto again = socket_->getIntegerOption(3);
    return !again && again.error().osError == ENOTCONN;
  }

  TemporaryFolder root_;
  UniqueFd listening_{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
  LinuxKernelControls controls_{root_.path(), kMessageTimeout};
  std::unique_ptr<ControlSocket> socket_;
  UniqueFd accepted_;
};

TEST_F(MisbehavingExtensionTest, AnAnswerWithoutItsHeadEndsTheConnection) {
  answer(sizeof(ControlAnswer) - 1);
  const auto refused = socket_->getIntegerOption(3);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kInvalid);
  EXPECT_THAT(refused.error().context, HasSubstr("an answer of 3 bytes"));
  EXPECT_TRUE(isClosedByClient());
}

TEST_F(MisbehavingExtensionTest, TheSizeOfAnAnswerIsLimited) {
  answer(sizeof(ControlAnswer));
  EXPECT_EQ(socket_->getIntegerOption(3).value().length, 0u);
  answer(sizeof(ControlAnswer) + kMaxControlOptionBytes - 1);
  EXPECT_EQ(socket_->getIntegerOption(3).value().length, kMaxControlOptionBytes - 1);
  answer(sizeof(ControlAnswer) + kMaxControlOptionBytes);
  EXPECT_EQ(socket_->getIntegerOption(3).value().length, kMaxControlOptionBytes);
  answer(sizeof(ControlAnswer) + kMaxControlOptionBytes + 1);
  EXPECT_FALSE(socket_->getIntegerOption(3));
  EXPECT_TRUE(isClosedByClient());
}

TEST_F(MisbehavingExtensionTest, AnAnswerWithUnrequestedBytesEndsTheConnection) {
  answer(sizeof(ControlAnswer) + 1);
  EXPECT_FALSE(socket_->setOption(5, Data{1}));
  EXPECT_TRUE(isClosedByClient());
}

TEST_F(MisbehavingExtensionTest, ATimeoutOrAHangUpEndsTheConnection) {
  const auto silent = socket_->ping();
  ASSERT_FALSE(silent);
  EXPECT_EQ(silent.error().osError, ETIMEDOUT);
  EXPECT_TRUE(isClosedByClient());
  socket_ = connectToControl(controls_, kName).value();
  accepted_ = UniqueFd(::accept(listening_.get(), nullptr, nullptr));
  ASSERT_EQ(::shutdown(accepted_.get(), SHUT_WR), 0);
  const auto gone = socket_->getIntegerOption(3);
  ASSERT_FALSE(gone);
  EXPECT_EQ(gone.error().osError, ECONNRESET);
  EXPECT_TRUE(isClosedByClient());
}

TEST_F(MisbehavingExtensionTest, ARefusedUnloadDiffersFromAFailedRequest) {
  answer(sizeof(ControlAnswer), EBUSY);
  EXPECT_EQ(socket_->prepareToUnload().error().code, ErrorCode::kDenied);
  EXPECT_NE(socket_->prepareToUnload().error().code, ErrorCode::kDenied);  // It says nothing.
}

}  // namespace
}  // namespace platform
