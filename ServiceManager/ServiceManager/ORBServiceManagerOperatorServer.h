#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Messages/NSProxy.h"
#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/ServiceManager/OperatorEvents.h"
#include "ServiceManager/ServiceManager/OperatorPictures.h"
#include "ServiceManager/Supervision/MainThreadWork.h"

class OperatorReport;

// The root object of the operator's server, which reports the daemon's state and the reasons for
// its decisions, and changes nothing. The keys of the answers are in OperatorFacts.h and
// HealthRecord.h. Belongs to the operator's thread.
//
// It asks the main thread for a picture of the daemon, so that a client that has changed something
// sees the effect. If the main thread is busy for longer than kPictureTime, the answer is about the
// last picture, and says what the main thread is doing.
class ORBServiceManagerOperatorServer final : public platform::MessageTarget {
 public:
  static constexpr platform::Duration kPictureTime = std::chrono::milliseconds(100);
  // A client that asks for events gets an answer within this time, without an event if none came.
  // A client that has gone keeps its place for as long.
  static constexpr platform::Duration kEventsTime = std::chrono::seconds(5);
  static constexpr std::size_t kEventsInAnAnswer = 500;
  // The clients that wait for events. If there is one more, the one that has waited longest is
  // answered; unless it has waited for less than kLeastEventsWait, in which case the new one is
  // refused. Otherwise those that are answered would ask again at once, and never wait.
  static constexpr std::size_t kMostWaitingForEvents = 256;
  static constexpr platform::Duration kLeastEventsWait = std::chrono::seconds(1);

  // The requests to the main thread. Both functions return at once and call back on any thread, or
  // drop the callback if the daemon ends.
  struct MainThread {
    std::function<void(platform::RunLoop::Callback published)> publish;
    // Calls `settled` when nothing goes on with the services of these labels.
    std::function<void(platform::Array labels, platform::RunLoop::Callback settled)> whenSettled;
  };

  // All of it outlives this.
  struct Environment {
    platform::RunLoop& runLoop;
    std::shared_ptr<OperatorPictures> pictures;
    OperatorReport& report;
    MainThread main;
    std::shared_ptr<const MainThreadWork> mainThreadWork;
    std::shared_ptr<OperatorEvents> events;
  };
  explicit ORBServiceManagerOperatorServer(Environment environment)
      : environment_(std::move(environment)) {}
  ORBServiceManagerOperatorServer(const ORBServiceManagerOperatorServer&) = delete;
  ORBServiceManagerOperatorServer& operator=(const ORBServiceManagerOperatorServer&) = delete;

  // "overview"; "healthRecord"; "factsOfService:" with a label; "jobsOfServices:" with an array of
  // labels; "treesOfServices:", "entriesOfServices:" and "reasonsOfServices:" with the same;
  // "extensions". "overviewFrom:" and "healthRecordFrom:" with a number answer with a page of
  // services, the first of which has this number, and with the number of all services. See
  // OperatorReport.h for the answers and for how long each blocks. "awaitServices:" with an array
  // of labels is answered, by true, when the service manager is no longer busy with any of these
  // services. "eventsAfter:" with a number is answered with the events that follow it, as soon as
  // there is one; a negative number asks for the last number.
  void takeMessage(std::string_view selector, const platform::Array& arguments,
                   platform::MessageReply reply) override;

 private:
  using Id = std::uint64_t;  // of a message
  struct Message {
    std::string selector;
    platform::Array arguments;
    platform::MessageReply reply;
    std::unique_ptr<platform::RunLoopHandle> limit = nullptr;
  };

  void awaitPicture(Message message);
  void askForPicture();
  void pictureIsPublished(Id last);
  void awaitServices(const platform::Array& labels, platform::MessageReply reply);
  void servicesAreSettled(Id id);
  void awaitEvents(std::int64_t number, platform::MessageReply reply);
  // Answers the request that has waited longest if there is no other place. False if it may wait
  // on.
  bool makesRoomForEventRequest();
  void eventsWereAdded();
  void answerWithEvents(Id id);
  void answer(Message message);
  platform::MessageResult answerTo(std::string_view selector, const platform::Array& arguments);
  void answerWithoutMainThread(Id id);
  platform::Value mainThreadsState() const;
  // A callback that any thread may run or drop. It runs `callback` on this thread.
  platform::RunLoop::Callback onThisThread(platform::RunLoop::Callback callback) const;

  const Environment environment_;
  Id lastId_ = 0;
  std::map<Id, Message> waiting_;                   // for a picture
  std::map<Id, platform::MessageReply> unsettled_;  // those of "awaitServices:"
  std::optional<platform::Instant> askedAt_;        // for the picture that is under way
  struct EventRequest {
    std::int64_t number;
    platform::Instant since;
    platform::MessageReply reply;
    std::unique_ptr<platform::RunLoopHandle> limit;
  };
  std::map<Id, EventRequest> eventRequests_;
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
};
