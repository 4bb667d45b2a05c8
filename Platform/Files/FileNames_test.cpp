#include "Platform/Files/FileNames.h"

#include <string>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(FileNames, APlainNameStaysInItsFolder) {
  for (const char* name : {"a", "a.b", "a b", "\u00e9", "-"})
    EXPECT_TRUE(isPlainFileName(name, 3)) << name;
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string(".a"), std::string("a/b"),
        std::string("/"), std::string("a\0b", 3), std::string("abcd")}) {
    EXPECT_FALSE(isPlainFileName(name, 3)) << name;
  }
}

}  // namespace
}  // namespace platform
