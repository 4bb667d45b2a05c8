#pragma once

#include <string_view>

#include "Platform/Messages/NSProxy.h"

// The root object of the authenticated daemons' server: "retrieveKey" hands out the secret of this
// run. Belongs to the main thread. Any other message raises.
class AuthServer final : public platform::MessageReceiver {
 public:
  // `secret` outlives this.
  explicit AuthServer(const platform::Value& secret) : secret_(secret) {}

  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override;

 private:
  const platform::Value& secret_;
};
