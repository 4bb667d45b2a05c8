// The settings server of @PRODUCT@, its primary service: the service manager starts the others when
// this one has announced itself, and evaluates them again after each change of a setting.
//
// It serves eight domains, of which "common" is for everything that has no domain of its own. A
// domain that only your programs use needs a name: ConfigurationServer::open(program,
// {"com.@PRODUCT@.settings"}).

#include <cstdio>
#include <cstdlib>
#include <string>

#include <vantor/ConfigurationServer.h>
#include <vantor/Program.h>
#include <vantor/PropertyList.h>

namespace {

// Registers the settings of defaults.plist, which lies beside this program, by domain.
vantor::Result<void> registerDefaults(const vantor::Program& program,
                                      vantor::ConfigurationServer& server) {
  const std::string folder = program.path().substr(0, program.path().rfind('/') + 1);
  const auto defaults = vantor::readPropertyList(folder + "defaults.plist");
  if (!defaults) return defaults.error();
  for (const auto& [domain, settings] : defaults->dictionary().value_or(vantor::Dictionary())) {
    const auto done =
        server.registerDefaults(domain, settings.dictionary().value_or(vantor::Dictionary()));
    if (!done) return done.error();
  }
  return {};
}

}  // namespace

int main() {
  const auto made = vantor::Program::make();
  if (!made) {
    std::fputs((made.error().text + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  vantor::Program& program = **made;
  auto server = vantor::ConfigurationServer::open(program);
  if (!server) {
    // The job host starts this program again. Until then everything stays as it is.
    program.log(vantor::LogLevel::kError, server.error().text);
    return EXIT_FAILURE;
  }
  if (const auto done = registerDefaults(program, *server); !done) {
    // Without its default a switch counts as off, so the services wait until the file is repaired.
    program.log(vantor::LogLevel::kError, "the defaults: " + done.error().text);
    return EXIT_FAILURE;
  }
  return program.run([&] { server->start(); }, [&] { server->stop(); });
}
