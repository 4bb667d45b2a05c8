#include <chrono>

#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"

using namespace platform;

Dictionary OperatorReport::extensions(const OperatorPicture& picture) const {
  Dictionary facts;
  const Value& kexts = picture.catalogue->extensions();
  if (!kexts.dictionary()) return facts;
  for (const auto& [name, entry] : *kexts.dictionary()) {
    facts.set(name, factsOfKext(picture, name, picture.catalogue->extensionIdentifier(name)));
  }
  return facts;
}

Dictionary OperatorReport::factsOfKext(const OperatorPicture& picture, const std::string& name,
                                       const std::optional<std::string>& identifier) const {
  Dictionary facts{{kFactKextIsConfigured, false}};
  Array services;
  for (const std::string& label : picture.catalogue->daemonsUsingKext(name))
    services.push_back(Value(label));
  facts.set(kFactKextServices, std::move(services));
  const auto failure = picture.extensionFailures.find(name);
  if (failure != picture.extensionFailures.end()) {
    facts.set(kFactKextFailedStep, failure->second.step);
    facts.set(kFactKextFailedAgo,
              std::chrono::duration<double>(-until(failure->second.time)).count());
  }
  if (!identifier) return facts;
  KernelExtensions& loader = environment_.extensions.loader;
  facts.set(kFactKextIdentifier, *identifier);
  const auto path = loader.KextManagerCreateURLForBundleIdentifier(*identifier);
  if (path) facts.set(kFactKextPath, *path);
  if (const auto authentic = loader.OSKextAuthenticate(*identifier); !authentic) {
    facts.set(kFactKextFault, describe(authentic.error()));
  }
  const Value information = loader.KextManagerCopyLoadedKextInfo({*identifier})[*identifier];
  if (!isKextUnknown(information)) facts.set(kFactKextIsLoaded, !information.isNil());
  const Value& loadedPath = information[kOSBundlePathKey];
  if (!loadedPath.isNil() && loadedPath != facts[kFactKextPath]) {
    facts.set(kFactKextLoadedPath, loadedPath);
  }
  const Value& process = information[kOSBundleProcessKey];
  if (!process.isNil()) facts.set(kFactKextProcess, process);
  const auto socket = connectToControl(environment_.extensions.controls, *identifier);
  facts.set(kFactKextIsConnected, socket.has_value());
  const auto configured = picture.configuredExtensions.find(name);
  // A process that was started again has not been configured.
  facts.set(kFactKextIsConfigured, socket && configured != picture.configuredExtensions.end() &&
                                       configured->second == (*socket)->offeredBy());
  if (socket) facts.set(kFactKextIsAnswering, (*socket)->ping().has_value());
  return facts;
}
