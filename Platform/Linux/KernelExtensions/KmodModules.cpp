#include "Platform/Linux/KernelExtensions/KmodModules.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <ranges>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <libkmod.h>

namespace platform {
namespace {

struct KmodDeleter {
  void operator()(kmod_ctx* context) const { kmod_unref(context); }
  void operator()(kmod_list* list) const { kmod_module_unref_list(list); }
  void operator()(kmod_module* module) const { kmod_module_unref(module); }
};
using Context = std::unique_ptr<kmod_ctx, KmodDeleter>;
using ModuleList = std::unique_ptr<kmod_list, KmodDeleter>;
using Module = std::unique_ptr<kmod_module, KmodDeleter>;

ErrorCode codeOfModuleError(int number) {
  switch (number) {
    case ENOENT:
      return ErrorCode::kNotFound;
    case EPERM:
    case EACCES:
    case ENOSYS:
    case EBUSY:
      return ErrorCode::kDenied;
    default:
      return ErrorCode::kSystem;
  }
}

std::unexpected<Error> moduleFailure(const std::string& module, std::string_view what, int number) {
  return std::unexpected(Error{codeOfModuleError(number), number,
                               fmt::format("the kernel module \"{}\": {}", module, what)});
}

// libkmod returns all errors as negative errno values.
struct Lookup {
  Context context;
  ModuleList modules;  // empty if no module has the name
};

bool isPartOfKernel(kmod_module* module) {
  return kmod_module_get_initstate(module) == KMOD_MODULE_BUILTIN;
}

bool isInKernel(kmod_module* module) {
  return kmod_module_get_initstate(module) == KMOD_MODULE_LIVE || isPartOfKernel(module);
}

Result<Lookup> lookUp(const std::optional<std::string>& folder, const std::string& module) {
  Lookup lookup;
  lookup.context.reset(kmod_new(folder ? folder->c_str() : nullptr, nullptr));
  if (!lookup.context) return moduleFailure(module, "libkmod", errno);
  // It would write to standard error.
  kmod_set_log_priority(lookup.context.get(), 0);
  kmod_list* list = nullptr;
  const int result = kmod_module_new_from_lookup(lookup.context.get(), module.c_str(), &list);
  lookup.modules.reset(list);
  if (result < 0 && result != -ENOENT && result != -ENOSYS) {
    return moduleFailure(module, "looking for it", -result);
  }
  return lookup;
}

// A loaded module that the folder does not have, because the kernel's package has been removed.
Module runningModule(const Lookup& lookup, const std::string& name) {
  kmod_module* module = nullptr;
  if (kmod_module_new_from_name(lookup.context.get(), name.c_str(), &module) != 0) return nullptr;
  Module found(module);
  return isInKernel(module) ? std::move(found) : nullptr;
}

template <typename Call>
Result<void> forEach(const std::optional<std::string>& folder, const std::string& module,
                     Call call) {
  const auto lookup = lookUp(folder, module);
  if (!lookup) return std::unexpected(lookup.error());
  if (!lookup->modules) {
    const Module running = runningModule(*lookup, module);
    if (!running) return moduleFailure(module, "this system has none of that name", ENOENT);
    return call(running.get());
  }
  for (kmod_list* item = lookup->modules.get(); item != nullptr;
       item = kmod_list_next(lookup->modules.get(), item)) {
    const Module found(kmod_module_get_module(item));
    if (auto done = call(found.get()); !done) return done;
  }
  return {};
}

// False also if no module has the name.
bool areAll(const std::optional<std::string>& folder, const std::string& module,
            bool (*condition)(kmod_module*)) {
  bool holds = true;
  const auto looked = forEach(folder, module, [&](kmod_module* found) -> Result<void> {
    holds = holds && condition(found);
    return {};
  });
  return looked && holds;
}

}  // namespace

bool KmodModules::isLoaded(const std::string& module) {
  return areAll(folder_, module, isInKernel);
}

bool KmodModules::isBuiltIn(const std::string& module) {
  return areAll(folder_, module, isPartOfKernel);
}

Result<std::vector<std::string>> KmodModules::load(const std::string& module) {
  std::vector<Module> inserted;
  auto loaded = forEach(folder_, module, [&](kmod_module* found) -> Result<void> {
    const bool wasThere = isInKernel(found);
    const int result = kmod_module_probe_insert_module(
        found, KMOD_PROBE_APPLY_BLACKLIST_ALIAS_ONLY | KMOD_PROBE_IGNORE_COMMAND, nullptr, nullptr,
        nullptr, nullptr);
    if (result == 0) {
      if (!wasThere) inserted.emplace_back(kmod_module_ref(found));
      return {};
    }
    if (result > 0)
      return moduleFailure(module, "modprobe.d says that it is not to be loaded", EPERM);
    return moduleFailure(module, "the kernel does not load it", -result);
  });
  if (loaded) {
    std::vector<std::string> names;
    for (const Module& each : inserted) names.emplace_back(kmod_module_get_name(each.get()));
    return names;
  }
  // An alias may stand for several modules.
  for (const Module& each : std::views::reverse(inserted))
    kmod_module_remove_module(each.get(), O_NONBLOCK);
  return std::unexpected(std::move(loaded.error()));
}

Result<void> KmodModules::unload(const std::string& module) {
  bool isOneLoaded = false;
  bool isOneRemoved = false;
  auto unloaded = forEach(folder_, module, [&](kmod_module* found) -> Result<void> {
    if (!isInKernel(found)) return {};
    isOneLoaded = true;
    if (isPartOfKernel(found)) return {};
    isOneRemoved = true;
    const int result = kmod_module_remove_module(found, O_NONBLOCK);
    if (result == 0) return {};
    const bool isInUse = result == -EBUSY || result == -EWOULDBLOCK;
    if (isInUse) return moduleFailure(module, "it is in use", EBUSY);
    return moduleFailure(module, "the kernel does not unload it", -result);
  });
  if (!unloaded || isOneRemoved) return unloaded;
  if (isOneLoaded) return moduleFailure(module, "it is built into the kernel", EBUSY);
  return moduleFailure(module, "it is not loaded", ENOENT);
}

}  // namespace platform
