// Programs: faults of the file itself are refused, each with its own reason.

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/CodeSigning/ContentDigest.h"
#include "Platform/Linux/CodeSigning/ProgramVerifier.h"
#include "Platform/Linux/CodeSigning/SignatureTrailer.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

using testing::HasSubstr;

class ProgramSignatureTest : public testing::Test {
 protected:
  void expectRefused(const std::string& path, OSStatus status, const std::string& reason) {
    const CodeSigningFailure failure = bed_.refusal(path);
    EXPECT_EQ(failure.status, status) << failure.reason;
    EXPECT_THAT(failure.reason, HasSubstr(path));
    EXPECT_THAT(failure.reason, HasSubstr(reason));
  }

  // Writes a changed copy of the program.
  std::string makeFile(const std::string& content) { return bed_.makeFile("bin/other", content); }

  CodeSigningBed bed_;
};

TEST_F(ProgramSignatureTest, ASignedProgramIsAccepted) {
  const auto verdict = bed_.check(bed_.makeProgram("bin/program"));
  EXPECT_TRUE(verdict) << verdict.error().reason;
}

TEST_F(ProgramSignatureTest, AScriptIsAcceptedByTheSignatureBesideIt) {
  const std::string script = bed_.makeFile("bin/script", "#!/bin/sh\nexit 0\n");
  expectRefused(script, errSecCSUnsigned, "carries no signature, and there is no .p7s beside it");
  ASSERT_TRUE(signDetached(script, CodeSigningBed::signer(), CodeSigningBed::options()));
  EXPECT_TRUE(bed_.check(script));
  EXPECT_EQ(contentOfFile(script), "#!/bin/sh\nexit 0\n");
}

TEST_F(ProgramSignatureTest, AChangedScriptIsRefused) {
  const std::string script = bed_.makeFile("bin/script", "#!/bin/sh\nexit 0\n");
  ASSERT_TRUE(signDetached(script, CodeSigningBed::signer(), CodeSigningBed::options()));
  bed_.makeFile("bin/script", "#!/bin/sh\nexit 1\n");
  expectRefused(script, errSecCSSignatureFailed, "is not what was signed");
}

TEST_F(ProgramSignatureTest, EveryChangedByteIsRefused) {
  const std::string signedContent = contentOfFile(bed_.makeProgram("bin/program"));
  ASSERT_LT(signedContent.size(), 4000u);
  for (std::size_t at = 0; at < signedContent.size(); ++at) {
    std::string changed = signedContent;
    changed[at] = static_cast<char>(changed[at] ^ 0x01);
    EXPECT_FALSE(bed_.check(makeFile(changed))) << "byte " << at;
  }
}

TEST_F(ProgramSignatureTest, AChangedByteOfTheProgramHasItsOwnReason) {
  std::string content = contentOfFile(bed_.makeProgram("bin/program"));
  content[2] ^= 1;
  expectRefused(makeFile(content), errSecCSSignatureFailed, "is not what was signed");
}

TEST_F(ProgramSignatureTest, AnAddedByteIsRefused) {
  const std::string content = contentOfFile(bed_.makeProgram("bin/program"));
  expectRefused(makeFile("x" + content), errSecCSSignatureFailed, "is not what was signed");
  expectRefused(makeFile(content + "x"), errSecCSUnsigned, "carries no signature");
}

TEST_F(ProgramSignatureTest, ATruncatedTrailerIsRefused) {
  const std::string content = contentOfFile(bed_.makeProgram("bin/program"));
  expectRefused(makeFile(content.substr(0, content.size() - 1)), errSecCSBadObjectFormat,
                "its signature trailer is cut short");
}

TEST_F(ProgramSignatureTest, ANestedTrailerIsRefused) {
  const std::string once = contentOfFile(bed_.makeProgram("bin/program"));
  // Made by hand, because signProgram() would replace the first signature.
  const std::string plain = makeFile(once);
  const UniqueFd file(::open(plain.c_str(), O_RDONLY | O_CLOEXEC));
  const auto digest = digestOfFile(file.get(), once.size(), EVP_sha256(), plain);
  const auto signature =
      makeCmsSignature(CodeSigningBed::signer(), CodeSigningBed::options(), *digest);
  const auto trailer = makeSignatureTrailer(static_cast<std::uint32_t>(signature->size()));
  const std::string twice = once + std::string(signature->begin(), signature->end()) +
                            std::string(trailer.begin(), trailer.end());
  expectRefused(makeFile(twice), errSecCSBadObjectFormat, "signed over another signature");
}

TEST_F(ProgramSignatureTest, AForgedTrailerIsRefused) {
  const std::string content = contentOfFile(bed_.makeProgram("bin/program"));
  const std::size_t fields = content.size() - kTrailerBytes;
  std::string kind = content;
  kind[fields + 2] = 1;
  expectRefused(makeFile(kind), errSecCSBadObjectFormat, "another kind of signature");
  std::string reserved = content;
  reserved[fields] = 1;
  expectRefused(makeFile(reserved), errSecCSBadObjectFormat, "values where zeros must be");
  std::string shorter = content;
  --shorter[fields + 11];
  expectRefused(makeFile(shorter), errSecCSBadObjectFormat, "is not CMS signed data");
}

TEST_F(ProgramSignatureTest, ImpossibleSizesInTheTrailerAreRefused) {
  const std::string content = contentOfFile(bed_.makeProgram("bin/program"));
  const std::string start = content.substr(0, content.size() - kTrailerBytes);
  const auto withSize = [&](std::uint32_t size) {
    const auto trailer = makeSignatureTrailer(size);
    return makeFile(start + std::string(trailer.begin(), trailer.end()));
  };
  expectRefused(withSize(0), errSecCSBadObjectFormat, "a signature of 0 bytes");
  expectRefused(withSize(0xffffffff), errSecCSBadObjectFormat, "larger than the file");
  expectRefused(withSize(static_cast<std::uint32_t>(start.size() + 1)), errSecCSBadObjectFormat,
                "larger than the file");
  expectRefused(withSize(static_cast<std::uint32_t>(start.size())), errSecCSBadObjectFormat,
                "nothing that it could sign");
}

TEST_F(ProgramSignatureTest, ASparseFileOfTerabytesIsRefusedAtOnce) {
  const std::string path = bed_.makeProgram("bin/program");
  const std::string content = contentOfFile(path);
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  const off_t start = off_t{1} << 42;
  if (::pwrite(file.get(), content.data(), content.size(), start) < 0) {
    GTEST_SKIP() << "no files of this size here";
  }
  expectRefused(path, kErrnoStatusBase + EFBIG, "is larger than");
}

// A hole of the largest size that is checked, one byte more, and the signature after it.
TEST_F(ProgramSignatureTest, AProgramOneByteTooLargeIsRefusedAtOnce) {
  const std::string path = bed_.makeProgram("bin/program");
  const std::string content = contentOfFile(path);
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(content.data());
  const auto trailer =
      readSignatureTrailer(content.size(), {bytes + content.size() - kTrailerBytes, kTrailerBytes});
  ASSERT_TRUE(trailer);
  const std::string signature = content.substr(static_cast<std::size_t>(trailer->payloadBytes));
  const UniqueFd file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (::pwrite(file.get(), signature.data(), signature.size(),
               static_cast<off_t>(kMaxCodeBytes) + 1) < 0) {
    GTEST_SKIP() << "no files of this size here";
  }
  expectRefused(path, kErrnoStatusBase + EFBIG, "is larger than");
}

TEST_F(ProgramSignatureTest, AnEmptyFileIsUnsigned) {
  expectRefused(makeFile(""), errSecCSUnsigned, "is empty");
}

TEST_F(ProgramSignatureTest, AnUnusableDetachedSignatureIsRefused) {
  const std::string script = bed_.makeFile("bin/script", "#!/bin/sh\n");
  bed_.folder().write("bin/script.p7s", "");
  EXPECT_THAT(bed_.refusal(script).reason, HasSubstr("script.p7s: is empty"));
  bed_.folder().write("bin/script.p7s", std::string(kMaxSignatureBytes + 1, '0'));
  EXPECT_THAT(bed_.refusal(script).reason, HasSubstr("larger than a signature may be"));
  for (const std::size_t size : {kMaxSignatureBytes - 1, kMaxSignatureBytes}) {
    bed_.folder().write("bin/script.p7s", std::string(size, '0'));
    EXPECT_THAT(bed_.refusal(script).reason, HasSubstr("is not CMS signed data")) << size;
  }
  ASSERT_EQ(::unlink((script + ".p7s").c_str()), 0);
  ASSERT_EQ(::mkfifo((script + ".p7s").c_str(), 0600), 0);
  EXPECT_THAT(bed_.refusal(script).reason, HasSubstr("script.p7s: is a pipe"));
}

TEST_F(ProgramSignatureTest, APipeIsRefused) {
  const std::string path = bed_.folder().path("pipe");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  expectRefused(path, errSecCSBadObjectFormat, "is a pipe, not a program");
}

TEST_F(ProgramSignatureTest, ADeviceIsRefused) {
  expectRefused("/dev/zero", errSecCSBadObjectFormat, "is a device, not a program");
}

TEST_F(ProgramSignatureTest, ASocketIsRefused) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = bed_.folder().path("socket");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  expectRefused(path, errSecCSBadObjectFormat, "is a socket, not a program");
}

TEST_F(ProgramSignatureTest, AFolderThatIsNotABundleIsRefused) {
  bed_.makeFile("plain/file");
  expectRefused(bed_.folder().path("plain"), errSecCSUnsigned, "so the bundle has no seal");
  bed_.makeFile("Empty.bundle/file");
  expectRefused(bed_.folder().path("Empty.bundle"), errSecCSBadObjectFormat,
                "has no folder \"Contents\"");
}

TEST_F(ProgramSignatureTest, ASymbolicLinkAnywhereInThePathIsRefused) {
  bed_.makeProgram("bin/program");
  const std::string link = bed_.folder().path("link");
  ASSERT_EQ(::symlink("bin/program", link.c_str()), 0);
  expectRefused(link, kErrnoStatusBase + ELOOP, "is a symbolic link");
  const std::string folder = bed_.folder().path("folder");
  ASSERT_EQ(::symlink("bin", folder.c_str()), 0);
  const CodeSigningFailure failure = bed_.refusal(folder + "/program");
  EXPECT_EQ(failure.status, kErrnoStatusBase + ELOOP);
  EXPECT_THAT(failure.reason, HasSubstr(folder + ": is a symbolic link"));
}

TEST_F(ProgramSignatureTest, APathThatIsNotPlainIsRefused) {
  const std::string path = bed_.makeProgram("bin/program");
  for (const std::string& other :
       {bed_.folder().path("bin/../bin/program"), bed_.folder().path("./bin/program"),
        bed_.folder().path("bin//program")}) {
    EXPECT_EQ(bed_.refusal(other).status, errSecCSBadObjectFormat) << other;
  }
  EXPECT_EQ(bed_.refusal("").status, kErrnoStatusBase + ENOENT);
  EXPECT_EQ(bed_.refusal(path + std::string("\0x", 2)).status, kErrnoStatusBase + EINVAL);
}

TEST_F(ProgramSignatureTest, AFolderThatOthersCanWriteIsRefusedUnlessItIsSticky) {
  const std::string path = bed_.makeProgram("bin/program");
  const std::string folder = bed_.folder().path("bin");
  ASSERT_EQ(::chmod(folder.c_str(), 0775), 0);
  EXPECT_THAT(bed_.refusal(path).reason,
              HasSubstr("the folder " + folder + " can be written by others (mode 0775)"));
  EXPECT_EQ(bed_.refusal(path).status, kErrnoStatusBase + EPERM);
  ASSERT_EQ(::chmod(folder.c_str(), 0757), 0);
  EXPECT_THAT(bed_.refusal(path).reason, HasSubstr("mode 0757"));
  ASSERT_EQ(::chmod(folder.c_str(), 01777), 0);
  EXPECT_TRUE(bed_.check(path));
  ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
  EXPECT_TRUE(bed_.check(path));
}

TEST_F(ProgramSignatureTest, AFolderFurtherUpThatOthersCanWriteIsRefusedToo) {
  const std::string path = bed_.makeProgram("a/b/c/program");
  ASSERT_EQ(::chmod(bed_.folder().path("a").c_str(), 0777), 0);
  EXPECT_EQ(bed_.refusal(path).status, kErrnoStatusBase + EPERM);
}

TEST_F(ProgramSignatureTest, AFileThatOthersCanWriteIsRefused) {
  const std::string path = bed_.makeProgram("bin/program");
  ASSERT_EQ(::chmod(path.c_str(), 0757), 0);
  EXPECT_THAT(bed_.refusal(path).reason, HasSubstr("the file " + path + " can be written"));
}

TEST_F(ProgramSignatureTest, AFileOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const std::string path = bed_.makeProgram("bin/program");
  ASSERT_EQ(::chown(path.c_str(), 12345, 12345), 0);
  EXPECT_THAT(bed_.refusal(path).reason, HasSubstr("the file " + path + " belongs to uid 12345"));
  ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
  ASSERT_EQ(::chown(bed_.folder().path("bin").c_str(), 12345, 12345), 0);
  EXPECT_THAT(bed_.refusal(path).reason, HasSubstr("belongs to uid 12345"));
}

TEST_F(ProgramSignatureTest, SigningKeepsTheModeAndReplacesAnOlderSignature) {
  const std::string path = bed_.makeFile("bin/program");
  ASSERT_EQ(::chmod(path.c_str(), 0751), 0);
  for (const char* identifier : {"one", "two"}) {
    ASSERT_TRUE(signProgram(path, CodeSigningBed::signer(), CodeSigningBed::options(identifier)));
    struct stat status{};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777u, 0751u);
    EXPECT_EQ(readProgramSignature(path)->identifier, identifier);
  }
  EXPECT_TRUE(bed_.check(path));
}

TEST_F(ProgramSignatureTest, SigningLeavesNothingBehindWhenItFails) {
  const std::string path = bed_.makeFile("bin/program");
  EXPECT_FALSE(signProgram(path, CodeSigningBed::signer(), CodeSigningBed::options("bad\n")));
  EXPECT_FALSE(signProgram(bed_.folder().path("bin/none"), CodeSigningBed::signer(),
                           CodeSigningBed::options()));
  EXPECT_EQ(contentOfFile(path),
            "\x7f"
            "ELF program");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(bed_.folder().path("bin")), {}), 1);
}

}  // namespace
}  // namespace platform
