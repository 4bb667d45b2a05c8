#pragma once

#include <expected>
#include <memory>
#include <span>
#include <string_view>

#include "Platform/Jobs/Authorization.h"
#include "Platform/Linux/Jobs/JobHostClient.h"

namespace platform {

// The right to change the jobs of this platform root's own job host, which decides by the kernel's
// credentials of its caller.
class EmbeddedAuthorization final : public Authorization {
 public:
  // `client` outlives this.
  explicit EmbeddedAuthorization(JobHostClient& client) : client_(client) {}

  std::expected<std::unique_ptr<AuthorizationRef>, OSStatus> AuthorizationCreate(
      AuthorizationFlags flags) override;
  OSStatus AuthorizationCopyRights(AuthorizationRef& authorization,
                                   std::span<const std::string_view> rights,
                                   AuthorizationFlags flags) override;

 private:
  OSStatus askHost();

  JobHostClient& client_;
};

}  // namespace platform
