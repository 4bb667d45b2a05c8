#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Error.h"
#include "Platform/PeerTransport.h"
#include "Platform/RunLoop.h"
#include "Platform/Value.h"

namespace platform {

// Asks the job host, over one connection that is made anew when the host has been restarted.
// Belongs to the run loop's thread.
class JobHostClient {
 public:
  // How long a host that is not there is waited for: as long as one takes to be restarted.
  static constexpr Duration kPatience = std::chrono::seconds(5);

  struct Answer {
    Value value;
    // The host ended before it answered, and the next one was asked the same again.
    bool wasRepeated = false;
  };

  // `socket` is the path of the host's. Both references outlive this.
  JobHostClient(PeerTransport& transport, RunLoop& loop, std::string socket,
                Duration patience = kPatience)
      : transport_(transport), loop_(loop), socket_(std::move(socket)), patience_(patience) {}

  // Blocks until the host has answered, for `timeout` at most once it has been reached. Fails with
  // kDenied where this user may not connect, with kNotFound where no host was there, with another
  // kind where it did not answer; `osError` is set where the system gave a reason.
  Result<Answer> call(std::string_view selector, const Array& arguments, Duration timeout);

  // The same without blocking once the host is reached, and asked once only. The completion runs on
  // the loop, or inside this call where the host can't be reached.
  void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                 std::move_only_function<void(Result<Value>)> completion);

 private:
  Result<void> connect(Instant deadline);

  PeerTransport& transport_;
  RunLoop& loop_;
  std::string socket_;
  Duration patience_;
  std::unique_ptr<PeerConnection> connection_;
};

}  // namespace platform
