#pragma once

// A daemon with a network extension, another extension, and services that need both, one or none.

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {

inline const SigningOptions& signingOfExtensions() {
  static const SigningOptions options{"com.example.nke",
                                      std::chrono::sys_days{std::chrono::January / 1 / 2025}};
  return options;
}

inline void sealExtension(const std::string& bundle) {
  const auto isSealed = signBundle(bundle, CodeSigningBed::signer(), signingOfExtensions());
  EXPECT_TRUE(isSealed) << describe(isSealed.error());
}

// Installs a signed extension at `bundle` of the root, replacing an existing one; `keys` go into
// its Info.plist. Returns its path.
inline std::string installExtensionAt(const DaemonRoot& root, const std::string& bundle,
                                      const std::string& identifier, const std::string& keys = "") {
  std::filesystem::remove_all(root.folder().path(bundle));
  root.folder().write(bundle + "/Contents/Info.plist",
                      "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" +
                          identifier +
                          "</string><key>CFBundleExecutable</key><string>extension</string>" +
                          keys + "</dict></plist>");
  const std::string program = root.folder().path(bundle + "/Contents/Linux/extension");
  std::filesystem::create_directories(std::filesystem::path(program).parent_path());
  std::filesystem::copy_file(EXTENSION, program);
  const auto isSigned = signProgram(program, CodeSigningBed::signer(), signingOfExtensions());
  EXPECT_TRUE(isSigned) << describe(isSigned.error());
  sealExtension(root.folder().path(bundle));
  return root.folder().path(bundle);
}

inline std::string installExtension(const DaemonRoot& root, const std::string& identifier,
                                    const std::string& keys = "") {
  return installExtensionAt(root, "Library/Extensions/" + identifier + ".kext", identifier, keys);
}

class DaemonExtensionsFixture : public testing::Test {
 protected:
  static constexpr char kNetwork[] = "com.vantor.nke.wfk";
  static constexpr char kOther[] = "com.example.nke.files";

  // Service 0 needs the network extension, which gets the secret, and the other one; service 1
  // needs the other one, service 2 none.
  void beginToStart() {
    Dictionary catalogue = DaemonRoot::catalogue(3);
    Dictionary services = *catalogue["Services"].dictionary();
    const auto need = [&](int service, Array extensions) {
      Dictionary entry = *services[DaemonRoot::label(service)].dictionary();
      entry.set("KernelExtensions", std::move(extensions));
      services.set(DaemonRoot::label(service), std::move(entry));
    };
    need(0, {"net", "files"});
    need(1, {"files"});
    catalogue.set("Services", std::move(services));
    catalogue.set(
        "KernelExtensions",
        Dictionary{{"net", Dictionary{{"Identifier", kNetwork}, {"Options", Array{"secure"}}}},
                   {"files", Dictionary{{"Identifier", kOther}, {"Options", Array{"secure"}}}}});
    root_.setCatalogue(catalogue);
    root_.startDaemon();
  }
  // Returns when all services have been evaluated.
  void start() {
    beginToStart();
    root_.awaitStart();
    root_.awaitLog("Evaluating service: " + DaemonRoot::label(2) + "\n");
    awaitServices(root_, {DaemonRoot::label(0), DaemonRoot::label(1), DaemonRoot::label(2)});
  }

  // Expects that a network extension with these keys fails: it is loaded as often as allowed.
  void expectUseless(const std::string& keys) {
    installExtension(root_, kNetwork, keys);
    installExtension(root_, kOther);
    start();
    EXPECT_FALSE(runs(0));
    EXPECT_TRUE(runs(1) && runs(2));
    root_.awaitLog("Failed to load kext 'com.vantor.nke.wfk'");
    root_.awaitLog("was started 3 times within a minute");
    EXPECT_EQ(root_.logCount("has been told"), 0u);
    EXPECT_EQ(extension(kNetwork), 0);
  }

  Data secret() {
    const auto key =
        UserInterfaceClient(root_, UserInterfaceClient::kAuthServer).ask("retrieveKey");
    const Data* const bytes = key ? key->data() : nullptr;
    EXPECT_TRUE(bytes);
    return bytes ? *bytes : Data();
  }
  // Expects the network extension to prove by a challenge that it has the secret.
  void expectToHaveTheSecret() {
    const auto control = connectToControl(controls_, kNetwork);
    ASSERT_TRUE(control) << describe(control.error());
    const Data challenge{7, 7, 7};
    ASSERT_TRUE((*control)->setOption(6, challenge));
    const auto answer = (*control)->getIntegerOption(7);
    ASSERT_TRUE(answer) << describe(answer.error());
    EXPECT_EQ(answer->length, 32u);
    const Data key = secret();
    std::array<unsigned char, 32> expected{};
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), challenge.data(), challenge.size(),
         expected.data(), nullptr);
    std::int32_t first = 0;
    std::memcpy(&first, expected.data(), sizeof first);
    EXPECT_EQ(answer->value, first);
  }
  // The operator's facts about the extensions, by their names in the catalogue.
  Value facts() {
    const auto told =
        UserInterfaceClient(root_, "com.vantor.servicemanager.operator.server").ask("extensions");
    EXPECT_TRUE(told);
    return told ? *told : Value();
  }
  void askFor(const char* selector, int service) {
    UserInterfaceClient client(root_);
    EXPECT_TRUE(client.ask(selector, {Value(Array{DaemonRoot::label(service)})}));
    EXPECT_TRUE(client.ask("services"));  // It is answered after the request has been taken.
    awaitServices(root_, {DaemonRoot::label(service)});
  }
  ProcessId extension(const std::string& identifier) {
    return root_.processOf(LinuxKernelExtensions::jobLabel(identifier));
  }
  bool runs(int service) { return root_.processOf(DaemonRoot::label(service)) != 0; }

  DaemonRoot root_;
  LinuxKernelControls controls_{root_.path(), std::chrono::seconds(60)};
};

}  // namespace platform
