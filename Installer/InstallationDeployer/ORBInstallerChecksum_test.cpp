#include "Installer/InstallationDeployer/ORBInstallerChecksum.h"

#include <string_view>

#include <gtest/gtest.h>

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// NIST's examples for FIPS 180.
TEST(ORBInstallerChecksumTest, TheChecksumsAreThePublishedOnesInLowerCase) {
  EXPECT_EQ(ORBInstallerChecksum::generateSHA256(bytesOf("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(ORBInstallerChecksum::generateSHA1(bytesOf("abc")),
            "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(ORBInstallerChecksumTest, NoDataHasTheChecksumOfNothing) {
  EXPECT_EQ(ORBInstallerChecksum::generateSHA256({}),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(ORBInstallerChecksum::generateSHA1({}), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(ORBInstallerChecksumTest, ZeroBytesCount) {
  EXPECT_NE(ORBInstallerChecksum::generateSHA256(bytesOf(std::string_view("a\0", 2))),
            ORBInstallerChecksum::generateSHA256(bytesOf("a")));
}

}  // namespace
