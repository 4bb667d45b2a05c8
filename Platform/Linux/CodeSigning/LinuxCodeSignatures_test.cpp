#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"

#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>

#include "Platform/CodeSigning/CodeSignature_contract.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace platform {
namespace {

class LinuxSignaturesHarness final : public CodeSignatureHarness {
 public:
  CodeSignatures& signatures() override { return bed_.signatures(); }
  std::string makeValid(SecStaticCode::Kind kind, std::optional<std::string> identifier) override {
    return make(kind, CodeSigningBed::signer(), std::move(identifier));
  }
  std::string makeUnsigned(SecStaticCode::Kind kind) override {
    return kind == SecStaticCode::Kind::kBundle ? bed_.makeUnsealedBundle("Unsigned.bundle")
                                                : bed_.makeFile("bin/unsigned");
  }
  std::string makeForeign(SecStaticCode::Kind kind) override {
    return make(kind, CodeSigningBed::foreignSigner(), "com.vantor.sample");
  }
  void tamperWith(const std::string& path, SecStaticCode::Kind kind) override {
    const bool bundle = kind == SecStaticCode::Kind::kBundle;
    const std::string file = bundle ? path + "/Contents/Resources/text" : path;
    const UniqueFd descriptor(::open(file.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(descriptor.get(), "X", 1, 1), 1);
  }
  void remove(const std::string& path) override { std::filesystem::remove_all(path); }
  std::string pathOfNothing() override { return bed_.folder().path("bin/nothing"); }
  void openToOthers(const std::string& path) override { ASSERT_EQ(::chmod(path.c_str(), 0777), 0); }
  std::string linkTo(const std::string& path) override {
    std::filesystem::create_symlink(path, bed_.folder().path("link"));
    return bed_.folder().path("link");
  }
  std::shared_ptr<void> makeShortage() override {
    return std::make_shared<DescriptorShortage>(DescriptorShortage::Left::kNone);
  }

 private:
  std::string make(SecStaticCode::Kind kind, const SigningIdentity& by,
                   std::optional<std::string> identifier) {
    const SigningOptions options = CodeSigningBed::options(std::move(identifier));
    return kind == SecStaticCode::Kind::kBundle ? bed_.makeBundle("Sample.bundle", by, options)
                                                : bed_.makeProgram("bin/program", by, options);
  }

  CodeSigningBed bed_;
};

std::unique_ptr<CodeSignatureHarness> makeSignaturesHarness() {
  return std::make_unique<LinuxSignaturesHarness>();
}

INSTANTIATE_TEST_SUITE_P(Linux, CodeSignatureContract,
                         testing::Combine(testing::Values(&makeSignaturesHarness),
                                          testing::Values(SecStaticCode::Kind::kProgram,
                                                          SecStaticCode::Kind::kBundle)));

}  // namespace
}  // namespace platform
