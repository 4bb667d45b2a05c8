#include "Platform/SystemFacts/LibraryPath.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(LibraryPathTest, TheMachinesRootHasItsLibraryWherePackagesHaveTheirs) {
  EXPECT_EQ(libraryPath("/", "Extensions"), "/usr/lib/vantor/Extensions");
  EXPECT_EQ(libraryPath("/srv/demo", "Extensions"), "/srv/demo/Library/Extensions");
}

}  // namespace
}  // namespace platform
