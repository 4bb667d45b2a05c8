#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <vantor/Api.h>
#include <vantor/Program.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

struct ConfigurationServerParts;

// The product's configuration server, which its primary service runs: the service manager decides
// about no other service while it can't be reached. It serves the settings of all eight domains
// (see Settings) to the programs of the product, and keeps them in one file.
//
// A change is on the disk before anybody can learn of it: before its notification and before a
// reading returns it. One setting has 64 KiB at most, key and value together, and a domain 192 KiB
// and 1,024 settings. Defaults are kept, too, with limits of their own.
class VANTOR_KIT_API ConfigurationServer {
 public:
  // Opens var/lib/vantor/settings.sqlite of the installation. Missing folders are made; only this
  // user may read them. A file that is damaged is renamed to end in ".damaged", and a new one is
  // begun: the log says why. Blocks for the disk, for some seconds at most.
  //
  // `ownDomains` are served besides, each under its name, for instance
  // "com.example.agent.settings".
  //
  // If this fails, end the program: the job host starts it again, and until then everything stays
  // as it is. A server without its settings would switch every feature off.
  static Result<ConfigurationServer> open(Program& program,
                                          const std::vector<std::string>& ownDomains = {});

  ConfigurationServer(ConfigurationServer&& other) noexcept;
  ConfigurationServer& operator=(ConfigurationServer&& other) noexcept;
  ~ConfigurationServer();

  // Registers what settings are until somebody sets them: all of these defaults, or none. A default
  // of the same key is replaced; values stay. Call it before start(). Fails with kNotFound for an
  // unknown domain.
  Result<void> registerDefaults(std::string_view domain, const Dictionary& defaults);

  // Serves the domains, and announces this to the service manager, which then decides about all
  // other services. For `started` of Program::run().
  void start();
  // Announces the end, and ends the connections of all clients. For `ending` of Program::run().
  void stop();

 private:
  explicit ConfigurationServer(std::unique_ptr<ConfigurationServerParts> parts);

  std::unique_ptr<ConfigurationServerParts> parts_;
};

}  // namespace vantor
