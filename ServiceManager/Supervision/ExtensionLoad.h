#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Files/Bundle.h"
#include "Platform/Files/FileReader.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Processes/Task.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/KextLoading.h"

// The parts of the platform that load kernel extensions.
struct KernelExtensionsPlatform {
  platform::KernelExtensions& loader;
  platform::KernelControls& controls;
  platform::Tasks& tasks;
  std::string root;  // of the platform, where older releases have a program that unloads extensions
};

// A socket that is connected to an extension's control; null if connecting fails, which is logged.
std::unique_ptr<platform::ControlSocket> createControlSocketWithIdentifier(
    platform::KernelControls& controls, std::string_view controlName);

// The actions in the states of KextLoading.h that may wait for the extension, for some seconds.
// Belongs to one thread at a time.
class ExtensionLoad {
 public:
  // All of it outlives this.
  struct Environment {
    const KernelExtensionsPlatform& extensions;
    const platform::SystemInformation& system;
    platform::FileReader& files;
    const platform::Bundle& mainBundle;
  };

  // `secret` is that of this run, for the network extension.
  ExtensionLoad(const Environment& environment, std::optional<std::string> identifier,
                platform::Array options, platform::Value secret);

  KextLoadingOutcome connect();
  KextLoadingOutcome configure();
  KextLoadingOutcome load();
  KextLoadingOutcome unload();
  // The process of the extension that was configured; 0 if none was.
  platform::ProcessId configuredProcess() const { return configured_; }
  // The socket of connect() is never kept beyond the end.
  void closeSocket() { socket_.reset(); }

 private:
  bool isNetworkKext() const;
  bool unloadKextWithIdentifier();

  const Environment environment_;
  const std::optional<std::string> identifier_;
  const platform::Array options_;
  const platform::Value secret_;
  std::unique_ptr<platform::ControlSocket> socket_;
  platform::ProcessId configured_ = 0;
};
