// The demo product's configuration server, for which every other service waits. It serves the
// settings of all domains, reports whether it is up, and announces its start and its end. The
// product's defaults lie beside it, in defaults.plist.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <vantor/ConfigurationServer.h>
#include <vantor/Program.h>
#include <vantor/PropertyList.h>

namespace {

// A file that can't be read is only logged, since the product works without it, if not as intended.
void registerDefaults(const vantor::Program& program, vantor::ConfigurationServer& server) {
  const std::string folder = program.path().substr(0, program.path().rfind('/') + 1);
  const auto log = [&](const vantor::Error& error) {
    program.log(vantor::LogLevel::kWarning, "the product's defaults: " + error.text);
  };
  const auto defaults = vantor::readPropertyList(folder + "defaults.plist");
  if (!defaults && defaults.error().code == vantor::ErrorCode::kNotFound) return;
  if (!defaults) return log(defaults.error());
  for (const auto& [domain, settings] : defaults->dictionary().value_or(vantor::Dictionary())) {
    const auto done =
        server.registerDefaults(domain, settings.dictionary().value_or(vantor::Dictionary()));
    if (!done) log(done.error());
  }
}

// Reports on standard error, for a start by hand.
int fail(const vantor::Error& error) {
  std::fputs(("configd: " + error.text + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main() {
  const auto made = vantor::Program::make();
  if (!made) return fail(made.error());
  vantor::Program& program = **made;
  auto server = vantor::ConfigurationServer::open(program);
  if (!server) {
    program.log(vantor::LogLevel::kError, server.error().text);
    return fail(server.error());
  }
  registerDefaults(program, *server);
  return program.run([&] { server->start(); }, [&] { server->stop(); });
}
