#include "Platform/Linux/Files/CocoaFileErrors.h"

#include <cerrno>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(CocoaFileErrorsTest, EachErrnoHasItsCode) {
  const struct {
    int number;
    std::int64_t reading;
    std::int64_t writing;
  } cases[] = {{ENOENT, 260, 4},        {ENOTDIR, 260, 4},  {EACCES, 257, 513}, {EPERM, 257, 513},
               {ENOSPC, 256, 640},      {EDQUOT, 256, 640}, {EROFS, 256, 642},  {EIO, 256, 512},
               {EISDIR, 256, 512},      {EMFILE, 256, 512}, {ELOOP, 256, 512},  {EEXIST, 256, 512},
               {ENAMETOOLONG, 256, 512}};
  for (const auto& [number, reading, writing] : cases) {
    EXPECT_EQ(cocoaReadError("/x", number).code, reading) << number;
    EXPECT_EQ(cocoaWriteError("/x", number).code, writing) << number;
  }
}

TEST(CocoaFileErrorsTest, TheErrorNamesThePathAndTheReason) {
  const NSError expected{"NSCocoaErrorDomain", 260, "/a/b: No such file or directory"};
  EXPECT_EQ(cocoaReadError("/a/b", ENOENT), expected);
}

}  // namespace
}  // namespace platform
