#include "Tools/servicemanagerctl/NewCommand.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/NewProduct.h"
#include "Tools/servicemanagerctl/Output.h"

namespace {

constexpr char kPrograms[] = "/usr/bin";
constexpr char kTemplates[] = "/usr/share/vantor/new";

// Where this program is installed, empty for "/".
platform::Result<std::string> installationPrefix() {
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::string folder = program.parent_path().string();
  if (!folder.ends_with(kPrograms)) {
    return std::unexpected(platform::Error{
        platform::ErrorCode::kNotFound, 0,
        "this program is not installed, so there are no templates; see \"cmake --install\""});
  }
  return folder.substr(0, folder.size() - (sizeof kPrograms - 1));
}

// Makes throw-away keys. Its report is left out; its errors are shown.
platform::Result<void> makeKeys(const std::string& codeseal, const std::string& folder,
                                const std::string& product) {
  const std::string name = "--name=" + product;
  const char* const arguments[] = {"codeseal", "make-keys", folder.c_str(), name.c_str(), nullptr};
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  ::pid_t process = 0;
  const int error = ::posix_spawn(&process, codeseal.c_str(), &files, nullptr,
                                  const_cast<char* const*>(arguments), ::environ);
  ::posix_spawn_file_actions_destroy(&files);
  if (error != 0)
    return std::unexpected(platform::Error{platform::ErrorCode::kSystem, error, codeseal});
  int status = 0;
  while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) return {};
  return std::unexpected(
      platform::Error{platform::ErrorCode::kInvalid, 0, codeseal + " made no keys"});
}

}  // namespace

NewCommand::NewCommand(CLI::App& app)
    : new_(app.add_subcommand("new", "Make a folder with the sources of a product that runs")) {
  new_->add_option(kFileOption, folder_, "The folder, which is new or empty")
      ->required()
      ->type_name("DIR");
  new_->add_option("--product", product_,
                   "Its name: lower-case letters, digits and hyphens, 20 at most")
      ->required()
      ->type_name("NAME");
}

int NewCommand::run() const {
  if (const auto fault = faultOfProductName(product_)) {
    fail(fmt::format("--product \"{}\": {}", escaped(product_), *fault));
    return kExitNotUnderstood;
  }
  const auto prefix = installationPrefix();
  if (!prefix) return fail(prefix.error());
  if (const auto made = makeProductFolder({*prefix + kTemplates, product_, *prefix}, folder_);
      !made)
    return fail(made.error());
  if (const auto made = makeKeys(*prefix + kPrograms + "/codeseal", folder_ + "/keys", product_);
      !made)
    return fail(made.error());
  print(fmt::format(
      "{} has the product \"{}\". Its README.md says which file is what. Next: cd {} && ./run\n",
      escaped(folder_), product_, escaped(folder_)));
  return EXIT_SUCCESS;
}
