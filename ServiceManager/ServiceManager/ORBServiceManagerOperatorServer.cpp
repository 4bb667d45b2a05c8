#include "ServiceManager/ServiceManager/ORBServiceManagerOperatorServer.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/ServerMessages.h"

using namespace platform;

namespace {

constexpr char kName[] = "ORBServiceManagerOperatorServer";
constexpr std::string_view kAwaitServices = "awaitServices:";
constexpr std::string_view kEventsAfter = "eventsAfter:";

// The other messages are about the catalogue, which never changes, or are no messages, or follow an
// answer about a picture.
bool needsPicture(std::string_view selector, const Array& arguments) {
  const bool isPage = selector == "overviewFrom:" || selector == "healthRecordFrom:";
  if (isPage) return arguments.front() == Value(0);  // Further pages are about the same one.
  return selector == "overview" || selector == "healthRecord" || selector == "extensions" ||
         selector == "factsOfService:";
}

}  // namespace

void ORBServiceManagerOperatorServer::takeMessage(std::string_view selector, const Array& arguments,
                                                  MessageReply reply) {
  if (selector == kAwaitServices) {
    const ServerMessage message{kName, selector, arguments};
    const Value labels = message.argument();
    if (!labels.array()) return reply.answer(message.invalidArgument("an array of labels"));
    return awaitServices(*labels.array(), std::move(reply));
  }
  if (selector == kEventsAfter) {
    const ServerMessage message{kName, selector, arguments};
    const auto number = message.argument().integer();
    if (!number) return reply.answer(message.invalidArgument("the number of an event"));
    return awaitEvents(*number, std::move(reply));
  }
  Message message{std::string(selector), arguments, std::move(reply)};
  if (needsPicture(selector, arguments)) {
    awaitPicture(std::move(message));
  } else {
    answer(std::move(message));
  }
}

void ORBServiceManagerOperatorServer::awaitPicture(Message message) {
  const Id id = ++lastId_;
  if (message.selector != kAwaitServices) {
    message.limit = environment_.runLoop.startTimer(kPictureTime, RunLoop::Repeat::kOnce,
                                                    [this, id] { answerWithoutMainThread(id); });
  }
  waiting_.emplace(id, std::move(message));
  if (!askedAt_) askForPicture();
}

// A picture that is under way may be older than the messages that come meanwhile, so those wait for
// the next one.
void ORBServiceManagerOperatorServer::askForPicture() {
  askedAt_ = environment_.runLoop.now();
  environment_.main.publish(onThisThread([this, last = lastId_] { pictureIsPublished(last); }));
}

void ORBServiceManagerOperatorServer::pictureIsPublished(Id last) {
  askedAt_.reset();
  std::vector<Message> messages;
  while (!waiting_.empty() && waiting_.begin()->first <= last) {
    messages.push_back(std::move(waiting_.extract(waiting_.begin()).mapped()));
  }
  if (!waiting_.empty()) askForPicture();
  for (Message& message : messages) answer(std::move(message));
}

void ORBServiceManagerOperatorServer::awaitServices(const Array& labels, MessageReply reply) {
  const Id id = ++lastId_;
  unsettled_.emplace(id, std::move(reply));
  environment_.main.whenSettled(labels, onThisThread([this, id] { servicesAreSettled(id); }));
}

// The client asks next what has become of the services. Those that settle at once share a picture.
void ORBServiceManagerOperatorServer::servicesAreSettled(Id id) {
  awaitPicture({std::string(kAwaitServices), {}, std::move(unsettled_.extract(id).mapped())});
}

void ORBServiceManagerOperatorServer::awaitEvents(std::int64_t number, MessageReply reply) {
  OperatorEvents& events = *environment_.events;
  // A client that knows no number yet wants one at once.
  if (number < 0) return reply.answer(events.after(events.last(), 0));
  if (!makesRoomForEventRequest()) {
    return reply.answer(std::unexpected(NSException{
        kNSInvalidArgumentException, "Too many clients wait for events. Ask again later.", {}}));
  }
  const Id id = ++lastId_;
  const bool isFirst = eventRequests_.empty();
  eventRequests_.emplace(
      id, EventRequest{number, environment_.runLoop.now(), std::move(reply),
                       environment_.runLoop.startTimer(kEventsTime, RunLoop::Repeat::kOnce,
                                                       [this, id] { answerWithEvents(id); })});
  // First, so that no event is added in between.
  if (isFirst) events.whenAdded(onThisThread([this] { eventsWereAdded(); }));
  if (events.last() != number) answerWithEvents(id);
}

bool ORBServiceManagerOperatorServer::makesRoomForEventRequest() {
  if (eventRequests_.size() < kMostWaitingForEvents) return true;
  const auto& [id, oldest] = *eventRequests_.begin();
  if (environment_.runLoop.now() - oldest.since < kLeastEventsWait) return false;
  answerWithEvents(id);
  return true;
}

void ORBServiceManagerOperatorServer::eventsWereAdded() {
  while (!eventRequests_.empty()) answerWithEvents(eventRequests_.begin()->first);
}

void ORBServiceManagerOperatorServer::answerWithEvents(Id id) {
  EventRequest request = std::move(eventRequests_.extract(id).mapped());
  request.limit.reset();
  request.reply.answer(environment_.events->after(request.number, kEventsInAnAnswer));
}

RunLoop::Callback ORBServiceManagerOperatorServer::onThisThread(RunLoop::Callback callback) const {
  return [&loop = environment_.runLoop, isAlive = std::weak_ptr(isAlive_),
          callback = std::move(callback)]() mutable {
    loop.post([isAlive = std::move(isAlive), callback = std::move(callback)]() mutable {
      if (!isAlive.expired()) callback();
    });
  };
}

void ORBServiceManagerOperatorServer::answerWithoutMainThread(Id id) {
  Message message = std::move(waiting_.extract(id).mapped());
  message.limit.reset();
  const Value busy = mainThreadsState();
  MessageResult result = answerTo(message.selector, message.arguments);
  if (result && !(*result)[kFactOperatingMode].isNil()) {
    Dictionary facts = *result->dictionary();
    facts.set(kFactMainThread, busy);
    result = Value(std::move(facts));
  }
  message.reply.answer(std::move(result));
}

Value ORBServiceManagerOperatorServer::mainThreadsState() const {
  const Instant now = environment_.runLoop.now();
  Instant since = askedAt_.value_or(now);
  Dictionary state;
  if (const auto work = environment_.mainThreadWork->current()) {
    since = std::min(since, work->since);
    state.set(kFactWork, work->what);
    if (!work->label.empty()) state.set(kFactWorkLabel, work->label);
  }
  state.set(kFactBusyFor, std::chrono::duration<double>(now - since).count());
  return state;
}

void ORBServiceManagerOperatorServer::answer(Message message) {
  message.limit.reset();
  message.reply.answer(answerTo(message.selector, message.arguments));
}

MessageResult ORBServiceManagerOperatorServer::answerTo(std::string_view selector,
                                                        const Array& arguments) {
  const ServerMessage message{kName, selector, arguments};
  const OperatorPictures::Picture picture = environment_.pictures->latest();
  OperatorReport& report = environment_.report;
  if (selector == kAwaitServices) return Value(true);
  if (selector == "overview") return report.overview(*picture);
  if (selector == "healthRecord") return picture->healthRecord;
  if (selector == "overviewFrom:" || selector == "healthRecordFrom:") {
    const auto first = message.argument().integer();
    if (!first || *first < 0) return message.invalidArgument("the number of a service");
    const OperatorReport::Page page{static_cast<std::size_t>(*first), kServicesInAPage};
    return selector == "overviewFrom:" ? report.overview(*picture, page)
                                       : report.healthRecord(*picture, page);
  }
  if (selector == "reasonsOfServices:") {
    return message.withLabels(
        [&](const Array& labels) { return report.reasonsOfServices(*picture, labels); });
  }
  if (selector == "extensions") return Value(report.extensions(*picture));
  if (selector == "factsOfService:") {
    const Value label = message.argument();
    if (!label.string()) return message.invalidArgument("a label");
    return report.factsOfService(*picture, *label.string());
  }
  if (selector == "entriesOfServices:") {
    return message.withLabels(
        [&](const Array& labels) { return report.entriesOfServices(*picture, labels); });
  }
  if (selector == "jobsOfServices:") {
    return message.withLabels(
        [&](const Array& labels) { return report.jobsOfServices(*picture, labels); });
  }
  if (selector == "treesOfServices:") {
    return message.withLabels(
        [&](const Array& labels) { return report.treesOfServices(*picture, labels); });
  }
  return message.unrecognizedSelector();
}
