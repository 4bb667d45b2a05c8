#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Sends requests to the job host over one connection, and connects again when the host has been
// restarted. Belongs to the run loop's thread.
class JobHostClient {
 public:
  using RequestId = std::uint64_t;

  // How long to wait for a host that has ended: as long as a restart takes.
  static constexpr Duration kRestartTimeOut = std::chrono::seconds(5);
  // After a call has timed out, the host gets this long to answer a ping. That tells a slow host
  // from one that hangs.
  static constexpr Duration kPingTimeOut = std::chrono::seconds(1);
  // How often a host that hangs or is absent is probed.
  static constexpr Duration kProbeInterval = std::chrono::seconds(1);
  // The time-out of a probe.
  static constexpr Duration kProbeTimeOut = std::chrono::milliseconds(100);
  // How long setProbe()'s thread gets for its answer. It may be busy for longer with other work.
  static constexpr Duration kProbeAnswerTimeOut = 2 * kProbeInterval;

  struct Answer {
    Value value;
    // The host ended before it answered, and the next one got the same request.
    bool wasRepeated = false;
  };

  // `socket` is the path of the host's socket, and `servers` the users whose host is trusted.
  // `restartTimeOut` is for a host that is absent from
  // the beginning. If a host ends during a request, the client always waits kRestartTimeOut for the
  // next one. Both references outlive this.
  JobHostClient(PeerTransport& transport, RunLoop& loop, std::string socket,
                Duration restartTimeOut = kRestartTimeOut, PeerAudience servers = {})
      : transport_(transport),
        loop_(loop),
        socket_(std::move(socket)),
        servers_(servers),
        restartTimeOut_(restartTimeOut) {}

  // Blocks until the host has answered, for `timeout` at most once it is connected. After a
  // time-out it pings the host with a limit of kPingTimeOut. If the ping fails, the host counts as
  // hung: calls of the next second fail at once. After that one call per second probes it for
  // kProbeTimeOut, and goes on if the probe succeeds. So a hung host costs one wait, and not one
  // for each call. An absent host likewise: after one wait in vain, each call only tries to
  // connect, until it has been there again.
  //
  // Fails with kDenied if this user may not connect, with kNotFound if no host was there, with
  // another kind if it did not answer. `osError` is ETIMEDOUT if the host is there and does not
  // answer. Otherwise it is set if the system gave a reason.
  Result<Answer> call(std::string_view selector, const Array& arguments, Duration timeout);

  // From now on each wait inside call() takes this long at most: for a connection, an answer, a
  // ping or the next host.
  void limitWaits(Duration longest) { longestWait_ = longest; }

  RunLoop& loop() const { return loop_; }

  // Makes the next call wait for an absent host again, and ask one that counted as hung.
  void waitAgain() { isKnownAbsent_ = isHung_ = false; }

  // Calls `onReturn` each time that a host answers again after a call() has failed because it hung
  // or was absent: on the loop, never from inside a call, once for all calls that have failed by
  // then. An empty handler ends that. Meanwhile the host is probed once a second, which blocks for
  // kProbeTimeOut if it does not accept.
  void setReturnHandler(std::function<void()> onReturn);

  // Tries to connect to the host on another thread, and answers on the loop whether connecting does
  // not block, since the host accepts connections or is absent. The answer may never come if that
  // thread ends.
  using Probe = std::function<void(std::move_only_function<void(bool mayConnect)> answer)>;
  // Uses this, instead of connecting, while a host that is there accepts no connection. Without it
  // callAsync() and the wait for the host's return connect on the loop once a second, which blocks
  // for kProbeTimeOut. So they do after a probe has not answered within kProbeAnswerTimeOut, until
  // it has.
  void setProbe(Probe probe) { probe_ = std::move(probe); }

  using Completion = std::move_only_function<void(Result<Answer>)>;

  // Requests that may wait long at the host, as removals do, leave room for the usual ones. Each
  // kind has so many requests under way; further ones wait for their turn.
  enum class Room { kUsual, kLong };
  static constexpr std::size_t kMaximumUsual = 64;
  static constexpr std::size_t kMaximumLong = 48;

  // The same without blocking: the client tries to reach an absent host, and repeats the request if
  // the host ends, while the loop goes on. Only connecting blocks, for kProbeTimeOut at most, and
  // with a probe only once until the host accepts connections again. The
  // completion runs once, on the loop and never from inside this call. It does not run if this is
  // destroyed before. After a usual request without an answer, the client
  // pings the host, too, and further requests wait for the outcome.
  //
  // The host gets the requests in their order, each at once if it is connected. Only a usual one
  // may overtake long ones that wait for their turn.
  RequestId callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                      Completion completion, Room room = Room::kUsual);
  // Gives a request of callAsync() only this long from now on, or, if it waits for its turn, from
  // then on. Does nothing if it is completed, or about to fail.
  void limit(RequestId id, Duration timeout);

 private:
  using ProbeId = std::uint64_t;

  static constexpr Duration kConnectTimeOut = std::chrono::seconds(5);

  // A request of callAsync() without an answer yet.
  struct Request {
    std::string selector;
    Array arguments;
    Duration timeout{};
    Completion completion;
    Room room;
    Instant deadline;  // for connecting to a host
    bool wasRepeated = false;
    std::unique_ptr<RunLoopHandle> limitTimer;  // of limit(), or of failSoon()
  };

  std::expected<void, PeerConnectFailure> connectOnce(Duration timeout = kConnectTimeOut);
  Result<void> connect(Instant deadline);
  void dropConnection();
  void noteHung();
  bool probeHungHost();
  bool ping(Duration timeout);
  void pingAfterTimeOut();
  void awaitReturn();
  void probeForReturnLater();
  void probeForReturn();
  void hostReturned();
  void pingUntilAnswered();
  void sendWaiting();
  bool hasRoomFor(const Request& request) const;
  void send(RequestId id);
  void connectLater(Duration delay);
  void connectForWaiting();
  bool mustProbe() const { return isHung_ && !connection_ && probe_ && lateProbes_ == 0; }
  using Probed = std::move_only_function<void(bool mayConnect)>;
  void probeHost(Probed answer);
  void probeIsLate(ProbeId id);
  void probeHasAnswered(ProbeId id, bool mayConnect);
  void couldNotConnect(const PeerConnectFailure& failure);
  void answered(RequestId id, Room room, MessageResult result);
  void pingAsync();
  void repeat(RequestId id);
  void failSoon(RequestId id, Error error);
  void complete(RequestId id, Result<Answer> answer);

  PeerTransport& transport_;
  RunLoop& loop_;
  std::string socket_;
  PeerAudience servers_;
  Duration restartTimeOut_;
  Duration longestWait_ = Duration::max();
  std::unique_ptr<PeerConnection> connection_;
  bool isHung_ = false;         // connected or listening, but did not answer in time
  Instant lastProbe_{};         // while it is hung
  bool isKnownAbsent_ = false;  // a wait for it has failed
  std::function<void()> onReturn_;
  bool isReturnAwaited_ = false;  // a call has failed, and `onReturn_` is to be called
  std::unique_ptr<RunLoopHandle> nextProbe_;
  std::map<RequestId, Request> requests_;
  std::set<RequestId> waiting_;  // those that no host has
  std::size_t usualUnderWay_ = 0;
  std::size_t longUnderWay_ = 0;
  bool isPinging_ = false;                       // after a request that was not answered in time
  std::unique_ptr<RunLoopHandle> connectTimer_;  // nothing is sent before it fires
  Probe probe_;
  bool isProbed_ = false;  // before the requests that wait are sent
  struct PendingProbe {
    std::move_only_function<void(bool mayConnect)> answer;
    std::unique_ptr<RunLoopHandle> limit;
  };
  std::map<ProbeId, PendingProbe> probes_;
  ProbeId lastProbeId_ = 0;
  std::size_t lateProbes_ = 0;  // those without an answer in time, which may still come
  // Answers of probes that come after the end of this are dropped.
  std::shared_ptr<int> isAlive_ = std::make_shared<int>();
  RequestId lastRequest_ = 0;
};

}  // namespace platform
