#include "Platform/Linux/SystemCalls/SystemCall.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(SystemCall, AnErrnoMeansTheSameKindEverywhere) {
  const struct {
    ErrorCode code;
    std::vector<int> numbers;
  } rows[] = {
      {ErrorCode::kNotFound, {ENOENT, ENOTDIR}},
      {ErrorCode::kDenied, {EACCES, EPERM}},
      {ErrorCode::kExhausted, {EMFILE, ENFILE, ENOMEM, ENOSPC, EDQUOT}},
      {ErrorCode::kSystem, {0, EIO, ELOOP, EROFS, EINVAL, EINTR}},
  };
  for (const auto& row : rows) {
    for (const int number : row.numbers) EXPECT_EQ(errorCodeOf(number), row.code) << number;
  }
}

}  // namespace
}  // namespace platform
