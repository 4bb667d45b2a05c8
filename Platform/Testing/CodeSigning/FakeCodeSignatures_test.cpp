#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"

#include "Platform/CodeSigning/CodeSignature_contract.h"

namespace platform {
namespace {

class FakeSignaturesHarness final : public CodeSignatureHarness {
 public:
  CodeSignatures& signatures() override { return fake_; }
  std::string makeValid(SecStaticCode::Kind kind, std::optional<std::string> identifier) override {
    fake_.addValid("/valid", kind, std::move(identifier));
    return "/valid";
  }
  std::string makeUnsigned(SecStaticCode::Kind kind) override {
    fake_.addRefused("/unsigned", kind, {errSecCSUnsigned, "/unsigned: carries no signature"});
    return "/unsigned";
  }
  std::string makeForeign(SecStaticCode::Kind kind) override {
    fake_.addRefused("/foreign", kind, {errSecCSReqFailed, "/foreign: leads to no anchor"});
    return "/foreign";
  }
  void tamperWith(const std::string& path, SecStaticCode::Kind kind) override {
    const bool bundle = kind == SecStaticCode::Kind::kBundle;
    fake_.addRefused(path, kind,
                     {bundle ? errSecCSBadResource : errSecCSSignatureFailed, path + ": changed"});
  }
  void remove(const std::string& path) override { fake_.remove(path); }
  std::string pathOfNothing() override { return "/nothing"; }
  void openToOthers(const std::string& path) override { fake_.setElsewhere(path); }
  std::string linkTo(const std::string& path) override {
    fake_.addLink("/link", path);
    return "/link";
  }
  std::shared_ptr<void> makeShortage() override {
    fake_.setShortage(true);
    return {&fake_, [](FakeCodeSignatures* fake) { fake->setShortage(false); }};
  }

 private:
  FakeCodeSignatures fake_;
};

std::unique_ptr<CodeSignatureHarness> makeFakeSignaturesHarness() {
  return std::make_unique<FakeSignaturesHarness>();
}

INSTANTIATE_TEST_SUITE_P(Fake, CodeSignatureContract,
                         testing::Combine(testing::Values(&makeFakeSignaturesHarness),
                                          testing::Values(SecStaticCode::Kind::kProgram,
                                                          SecStaticCode::Kind::kBundle)));

TEST(FakeCodeSignaturesTest, CountsChecks) {
  FakeCodeSignatures fake;
  fake.addValid("/program", SecStaticCode::Kind::kProgram, std::nullopt);
  EXPECT_EQ(fake.checks("/program"), 0);
  const auto code = fake.SecStaticCodeCreateWithPath("/program");
  const auto requirement = SecRequirementCreateWithString("anchor apple generic");
  EXPECT_TRUE((*code)->SecStaticCodeCheckValidityWithErrors(0, *requirement));
  EXPECT_TRUE((*code)->SecStaticCodeCheckValidityWithErrors(0, *requirement));
  EXPECT_EQ(fake.checks("/program"), 2);
}

}  // namespace
}  // namespace platform
