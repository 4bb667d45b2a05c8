#pragma once

#include <expected>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Jobs/Authorization.h"
#include "Platform/Testing/Jobs/FakeJobs.h"

namespace platform {

// Grants the right to change jobs if the fake job host permits it to the caller.
class FakeAuthorization final : public Authorization {
 public:
  // `jobs` outlives this.
  explicit FakeAuthorization(FakeJobs& jobs) : jobs_(jobs) {}

  std::expected<std::unique_ptr<AuthorizationRef>, OSStatus> AuthorizationCreate(
      AuthorizationFlags flags) override;
  OSStatus AuthorizationCopyRights(AuthorizationRef& authorization,
                                   std::span<const std::string_view> rights,
                                   AuthorizationFlags flags) override;

  // The requests, in order.
  struct Asked {
    std::vector<std::string> rights;
    AuthorizationFlags flags;
  };
  std::vector<AuthorizationFlags> created;
  std::vector<Asked> asked;

 private:
  FakeJobs& jobs_;
};

}  // namespace platform
