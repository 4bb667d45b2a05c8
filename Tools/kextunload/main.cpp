// Unloads one extension of the platform root in which this program lies, by the extension's
// identifier or by the path of its bundle. Exit status: 0 unloaded, 1 not unloaded, 2 not
// understood.

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>

#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/KernelExtensions/KextBundle.h"
#include "Platform/Linux/KernelExtensions/KmodModules.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"
#include "Platform/Linux/LinuxPlatform.h"

namespace {

constexpr char kUsage[] = "usage: kextunload -b IDENTIFIER\n       kextunload NAME.kext\n";

int fail(const platform::Error& error) {
  std::fputs(("kextunload: " + platform::describe(error) + "\n").c_str(), stderr);
  return 1;
}

platform::Result<void> unload(platform::LinuxPlatform& linux, const std::string& identifier,
                              std::vector<std::string> folders) {
  platform::RunLoop& loop = *linux.runLoop;
  const std::string& root = linux.configuration.root;
  const auto signatures =
      platform::LinuxCodeSignatures::create(root, [&] { return loop.wallTime(); });
  if (!signatures) return std::unexpected(signatures.error());
  platform::JobHostClient host(linux.peerTransport, loop, platform::jobHostSocket(root));
  platform::EmbeddedJobs jobs(host);
  platform::LinuxKernelControls controls(root);
  platform::KmodModules modules;
  platform::LinuxKernelExtensions extensions(
      {loop, jobs, **signatures, controls, modules, linux.systemLog}, std::move(folders));
  return extensions.KextManagerUnloadKextWithIdentifier(identifier);
}

}  // namespace

int main(int argc, char** argv) {
  const bool byIdentifier = argc == 3 && std::string_view(argv[1]) == "-b";
  const bool byPath = argc == 2 && !std::string_view(argv[1]).starts_with('-');
  if (!byIdentifier && !byPath) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  auto made = platform::LinuxPlatform::make();
  if (!made) return fail(made.error());
  std::vector<std::string> folders = platform::LinuxKernelExtensions::folders(
      (*made)->configuration.root, (*made)->mainBundle.resourcePath());
  std::string identifier = argv[argc - 1];
  if (byPath) {
    const std::string path = std::filesystem::absolute(identifier).lexically_normal().string();
    const auto bundle = platform::readKextBundle(path);
    if (!bundle) return fail(bundle.error());
    identifier = bundle->identifier;
    folders = {path};
  }
  if (const auto unloaded = unload(**made, identifier, std::move(folders)); !unloaded) {
    return fail(unloaded.error());
  }
  return 0;
}
