#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Asks the job host, over one connection that is made anew when the host has been restarted.
// Belongs to the run loop's thread.
class JobHostClient {
 public:
  // How long a host that has ended is waited for: as long as one takes to be restarted.
  static constexpr Duration kPatience = std::chrono::seconds(5);
  // What a host that has let a question's time pass gets to show that it only takes long over that.
  static constexpr Duration kLifeSignTime = std::chrono::seconds(1);
  // How long a host that was silent is taken to be so still, before somebody looks again.
  static constexpr Duration kSilentHostPause = std::chrono::seconds(1);
  // What such a look may take.
  static constexpr Duration kLookTime = std::chrono::milliseconds(100);

  struct Answer {
    Value value;
    // The host ended before it answered, and the next one was asked the same again.
    bool wasRepeated = false;
  };

  // `socket` is the path of the host's. `patience` is for a host that is not there to begin with;
  // one that ends while it has a request is waited for in any case. Both references outlive this.
  JobHostClient(PeerTransport& transport, RunLoop& loop, std::string socket,
                Duration patience = kPatience)
      : transport_(transport), loop_(loop), socket_(std::move(socket)), patience_(patience) {}

  // Blocks until the host has answered, for `timeout` at most once it has been reached, and one
  // second more where that has passed. A host that is there and gives no sign of life costs one
  // such wait and not one for each call: the calls of the next second fail at once, and after that
  // one a second looks for a tenth of a second whether the host has gone on, and asks it if so. A
  // host that is not there likewise: who has been waited for in vain is only looked for, until it
  // has been there again.
  // Fails with kDenied where this user may not connect, with kNotFound where no host was there,
  // with another kind where it did not answer; `osError` is ETIMEDOUT where it is there and does
  // not answer, and otherwise set where the system gave a reason.
  Result<Answer> call(std::string_view selector, const Array& arguments, Duration timeout);

  // The next call waits for a host that is not there in any case.
  void waitAgain() { hasWaitedInVain_ = false; }

  // Calls `onReturn` each time that a host answers again after a call() has failed by its silence
  // or absence: on the loop, never from inside a call, once for all that have failed until then. An
  // empty handler ends that. While a host is missed it is looked for once a second, which blocks
  // for a tenth of one where it accepts nobody.
  void setReturnHandler(std::function<void()> onReturn);

  using Completion = std::move_only_function<void(Result<Answer>)>;

  // The same without waiting: a host that is not there is looked for, and one that ends is asked
  // again, while the loop goes on. Only the connecting itself blocks. The completion runs once, on
  // the loop and never from inside this call; not at all where this is destroyed before.
  void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                 Completion completion);

 private:
  using RequestId = std::uint64_t;

  static constexpr Duration kConnectTime = std::chrono::seconds(5);

  // What callAsync() was asked for and has not been answered.
  struct Request {
    std::string selector;
    Array arguments;
    Duration timeout{};
    Completion completion;
    Instant deadline;  // for reaching a host
    bool wasRepeated = false;
    std::unique_ptr<RunLoopHandle> nextTry;  // null while the host has the request
  };

  std::expected<void, PeerConnectFailure> connectOnce(Duration timeout = kConnectTime);
  Result<void> connect(Instant deadline);
  void dropConnection();
  void noteSilence();
  bool showsLife();
  bool givesSign(Duration timeout);
  void lookForLife();
  void noteMissed();
  void lookForReturnLater();
  void lookForReturn();
  void returned();
  void tryLater(RequestId id, Duration delay);
  void ask(RequestId id);
  void answered(RequestId id, PeerResult result);
  void repeat(RequestId id);
  void complete(RequestId id, Result<Answer> answer);

  PeerTransport& transport_;
  RunLoop& loop_;
  std::string socket_;
  Duration patience_;
  std::unique_ptr<PeerConnection> connection_;
  bool isSilent_ = false;         // It is there, and nothing came from it in time.
  Instant lastLook_{};            // when that was seen last, while it is silent
  bool hasWaitedInVain_ = false;  // for one that is not there
  std::function<void()> onReturn_;
  bool isMissed_ = false;  // A call has failed, and `onReturn_` is to be told.
  std::unique_ptr<RunLoopHandle> nextLook_;
  std::map<RequestId, Request> requests_;
  RequestId lastRequest_ = 0;
};

}  // namespace platform
