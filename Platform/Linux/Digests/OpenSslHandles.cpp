#include "Platform/Linux/Digests/OpenSslHandles.h"

#include <openssl/err.h>

namespace platform {

std::string takeOpenSslError() {
  const unsigned long code = ERR_peek_error();
  ERR_clear_error();
  const char* const reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  return reason ? reason : "no reason given";
}

std::unexpected<Error> openSslFailure(const std::string& what, ErrorCode code) {
  return std::unexpected(Error{code, 0, what + ": " + takeOpenSslError()});
}

}  // namespace platform
