#include "ServiceManager/Catalogue/MinimumOSVersion.h"

#include <gtest/gtest.h>

namespace {

TEST(MinimumOSVersion, EachReleaseHasItsKernel) {
  EXPECT_EQ(kernelMajorNumberForMinimumOSVersion("10.8"), 12);
  EXPECT_EQ(kernelMajorNumberForMinimumOSVersion("10.9"), 13);
  EXPECT_EQ(kernelMajorNumberForMinimumOSVersion("10.10"), 14);
  EXPECT_EQ(kernelMajorNumberForMinimumOSVersion("10.11"), 15);
}

TEST(MinimumOSVersion, OnlyAStringIsARelease) {
  for (const platform::Value& version :
       {platform::Value(), platform::Value(10.8), platform::Value(true), platform::Value(15),
        platform::Value(platform::Array{"10.8"}), platform::Value::nullMarker()}) {
    EXPECT_FALSE(kernelMajorNumberForMinimumOSVersion(version));
  }
}

TEST(MinimumOSVersion, NoOtherReleaseIsKnown) {
  for (const char* version : {"10.7", "10.12", "10.1", "10.110", "10.8.0", "11", " 10.8", ""}) {
    EXPECT_FALSE(kernelMajorNumberForMinimumOSVersion(version)) << version;
  }
}

}  // namespace
