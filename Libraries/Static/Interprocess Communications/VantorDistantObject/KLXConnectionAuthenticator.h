#pragma once

#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/SystemFacts/SystemInformation.h"

// The server's side of the authentication: the delegate of a vended connection and of all its
// children. A peer is accepted if it shows the token of this machine and this boot. Logs nothing.
class KLXConnectionAuthenticator final : public platform::NSConnectionDelegate {
 public:
  // `system` outlives this.
  explicit KLXConnectionAuthenticator(const platform::SystemInformation& system)
      : system_(system) {}

  // Gives the new connection the parent's delegate, so that both are authenticated alike.
  bool connection(platform::NSConnection& parent,
                  platform::NSConnection& shouldMakeNewConnection) override;
  platform::Data authenticationDataForComponents(const platform::Array& components) override;
  bool authenticateComponents(const platform::Array& components,
                              const platform::Data& withData) override;

 private:
  const platform::SystemInformation& system_;
};
