#include "ServiceManager/Workers/ExtensionClients.h"

#include "Platform/Linux/Jobs/JobHostMessages.h"

ExtensionClients::ExtensionClients(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                                   platform::CodeSignatures& signatures)
    : root(linux.configuration.root),
      transport(thread.loop(), linux.peerAccounts),
      host(transport, thread.loop(), platform::jobHostSocket(root)),
      jobs(host),
      controls(root),
      tasks(thread.loop(), center, {.descriptorLimit = linux.originalDescriptorLimit}),
      extensions({thread.loop(), jobs, signatures, controls, modules, linux.systemLog},
                 platform::LinuxKernelExtensions::folders(root, linux.mainBundle.resourcePath())) {}
