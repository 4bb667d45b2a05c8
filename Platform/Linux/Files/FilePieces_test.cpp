#include "Platform/Linux/Files/FilePieces.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

class FilePiecesTest : public testing::Test {
 protected:
  Result<void> read(std::uint64_t offset, std::uint64_t size) {
    sizes_.clear();
    return readPieces(file_.get(), offset, size, "file",
                      [this](std::span<const std::uint8_t> piece) -> Result<void> {
                        sizes_.push_back(piece.size());
                        return {};
                      });
  }

  static constexpr std::size_t kSize = 2 * kPieceBytes + 1;
  TemporaryFolder folder_;
  const RegularFile file_ = openRegularFile(folder_.write("file", std::string(kSize, 'x'))).value();
  std::vector<std::size_t> sizes_;
};

TEST_F(FilePiecesTest, AFileIsReadInPieces) {
  EXPECT_TRUE(read(0, kSize));
  EXPECT_EQ(sizes_, (std::vector<std::size_t>{kPieceBytes, kPieceBytes, 1}));
  EXPECT_TRUE(read(kPieceBytes, 2));
  EXPECT_EQ(sizes_, (std::vector<std::size_t>{2}));
  EXPECT_TRUE(read(0, 0));
  EXPECT_TRUE(sizes_.empty());
}

TEST_F(FilePiecesTest, AFileThatEndsTooSoonIsAnError) {
  const auto done = read(1, kSize);
  ASSERT_FALSE(done);
  EXPECT_EQ(done.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(done.error().context, "file: became shorter while it was read");
}

TEST_F(FilePiecesTest, AnInterruptedReadIsRepeated) {
  withInterceptedSystemCall(
      SYS_pread64, [](const InterceptedCall& call) { return call.nth < 3 ? EINTR : 0; },
      [&] { EXPECT_TRUE(read(0, 10)); });
}

TEST_F(FilePiecesTest, AFailedReadNamesTheFile) {
  withInterceptedSystemCall(
      SYS_pread64, [](const InterceptedCall&) { return EIO; },
      [&] {
        const auto done = read(0, 10);
        ASSERT_FALSE(done);
        EXPECT_EQ(done.error().osError, EIO);
        EXPECT_EQ(done.error().context, "file");
      });
}

TEST_F(FilePiecesTest, AFailureOfTheTakerEndsTheReading) {
  int pieces = 0;
  const auto done =
      readPieces(file_.get(), 0, kSize, "file", [&](std::span<const std::uint8_t>) -> Result<void> {
        ++pieces;
        return invalid("enough");
      });
  ASSERT_FALSE(done);
  EXPECT_EQ(done.error().context, "enough");
  EXPECT_EQ(pieces, 1);
}

}  // namespace
}  // namespace platform
