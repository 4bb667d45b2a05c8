#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Digests/Digest.h"
#include "Platform/Digests/FileDigest.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/ServiceManager/QuarantineDatabase.h"
#include "ServiceManager/ServiceManager/RequestLines.h"
#include "Shared/Categories/NSStringExtensions.h"

using namespace platform;

namespace {

constexpr std::string_view kQuarantine = "com.apple.quarantine";
constexpr std::size_t kAttributeBytes = 4096;

// The identifier in the code's signature, or the reason why the signature is not valid.
std::expected<Value, std::string> checkSigning(const ORBExecInfoHandler::Environment& environment,
                                               const std::string& path) {
  const auto code = environment.codeSignatures.SecStaticCodeCreateWithPath(path);
  if (!code) {
    return std::unexpected(
        stringWithFormat("Can't create security reference (SecStaticCodeCreateWithPath  status: "
                         "%i)",
                         code.error().status));
  }
  const auto requirement = environment.makeRequirement("anchor apple generic");
  if (!requirement) {
    return std::unexpected(
        stringWithFormat("Requirement creation failed (SecRequirementCreateWithString status: %i)",
                         requirement.error().status));
  }
  const auto verdict =
      (*code)->SecStaticCodeCheckValidityWithErrors(kSecCSCheckAllArchitectures, *requirement);
  if (!verdict) {
    return std::unexpected(stringWithFormat(
        "Unable to check validity (SecStaticCodeCheckValidityWithErrors status: %i, error: %@)",
        verdict.error().status, errorObject(verdict.error())));
  }
  const auto information = (*code)->SecCodeCopySigningInformation(kSecCSSigningInformation);
  if (!information) {
    return std::unexpected(stringWithFormat(
        "Unable to collect signing informatino (SecCodeCopySigningInformation status: %i, error: "
        "%@)",
        information.error().status, errorObject(information.error())));
  }
  return (*information)[kSecCodeInfoIdentifier];
}

}  // namespace

// Hashes a file piece by piece.
class ORBExecInfoHandler::FileHash {
 public:
  explicit FileHash(std::string path) : path_(std::move(path)) {}

  // Opens the file. False while another process has a lease on it; call it again then.
  bool isOpen() {
    if (!digest_) digest_ = FileDigest::open(path_);
    if (!*digest_) return true;
    const auto ready = (*digest_)->isReady();
    if (!ready) digest_ = std::unexpected(ready.error());
    return !ready || *ready;
  }

  // Hashes the next piece of the open file. True if there is no more to do, also because the file
  // could not be opened or hashed.
  bool proceed() {
    if (!*digest_) return fail(digest_->error());
    FileDigest& digest = **digest_;
    const auto done = digest.readMore(ORBExecInfoHandler::kBytesPerBlock);
    if (!done) return fail(done.error());
    if (!*done) return false;
    const auto sum = digest.finish();
    if (!sum) return fail(sum.error());
    if (*sum) text_ = hexadecimalText(**sum);
    return true;
  }

  // 64 hexadecimal digits, or empty.
  const std::string& text() const { return text_; }

 private:
  static bool fail(const Error& error) {
    logRequest(ASL_LEVEL_DEBUG, describe(error));
    return true;
  }

  const std::string path_;
  std::optional<Result<FileDigest>> digest_;
  std::string text_;
};

ORBExecInfoHandler::ORBExecInfoHandler(const Environment& environment,
                                       std::shared_ptr<ExecInfoHandlerDelegate> delegate)
    : environment_(environment), delegate_(std::move(delegate)) {
  // Never closed: its lines come from the queues of XPC, until the end of the program.
  vantorlogger2_open(kClassName, mach_thread_self());
}

void ORBExecInfoHandler::setDelegate(std::shared_ptr<ExecInfoHandlerDelegate> delegate) {
  const std::lock_guard lock(delegateMutex_);
  std::swap(delegate_, delegate);
}

bool ORBExecInfoHandler::listener(
    NSXPCListener& /*listener*/,
    const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) {
  NSXPCConnection& connection = *shouldAcceptNewConnection;
  logNewConnection(connection);
  connection.setExportedInterface(environment_.protocols.find(kORBExecutableInfoProtocol));
  connection.setExportedObject(shared_from_this());
  connection.resume();
  return true;
}

void ORBExecInfoHandler::receiveMessage(std::string_view selector, const Array& arguments,
                                        XPCReply reply) {
  if (selector != "requestExecutableInfo:withReply:") return;
  const std::string* path = arguments.at(0).string();
  // If the argument is not a string, it is no path, and all answers are empty.
  requestExecutableInfo(
      path ? *path : std::string(),
      [reply = std::move(reply)](const std::string& signing, const std::string& hash,
                                 const std::string& sourceUrl) mutable {
        reply({Value(signing), Value(hash), Value(sourceUrl)});
      });
}

struct ORBExecInfoHandler::Request {
  Request(const std::string& asked, Reply withReply)
      : path(asked), reply(std::move(withReply)), hash(asked) {}

  const std::string path;
  Reply reply;
  std::optional<std::string> signing;
  FileHash hash;
};

void ORBExecInfoHandler::requestExecutableInfo(const std::string& path, Reply withReply) {
  logRequest(ASL_LEVEL_DEBUG,
             stringWithFormat("requestExecutableInfo request for path '%@'", path));
  auto request = std::make_unique<Request>(path, std::move(withReply));
  proceed(std::move(request));
}

// The file is opened first: once it is open, nobody can get a lease on it that would keep its
// signature from being read.
bool ORBExecInfoHandler::advance(Request& request) {
  if (!request.hash.isOpen()) return false;
  if (!request.signing) request.signing = calculateSigningForPath(request.path);
  return isCancelled() || request.hash.proceed();
}

void ORBExecInfoHandler::proceed(std::unique_ptr<Request> request) {
  while (!isCancelled() && !advance(*request)) {
    NSXPCConnection* const connection = NSXPCConnection::currentConnection();
    if (connection == nullptr) continue;
    return connection->continueServing(
        [self = shared_from_this(), request = std::move(request)]() mutable {
          self->proceed(std::move(request));
        });
  }
  std::string sourceUrl;
  if (!isCancelled()) sourceUrl = calculateSourceUrlForPath(request->path);
  request->reply(request->signing.value_or(std::string()), request->hash.text(), sourceUrl);
}

bool ORBExecInfoHandler::isCancelled() const {
  const NSXPCConnection* const connection = NSXPCConnection::currentConnection();
  return stop_.stop_requested() || (connection != nullptr && connection->isInvalid());
}

std::string ORBExecInfoHandler::calculateSigningForPath(const std::string& path) {
  const auto identifier = checkSigning(environment_, path);
  if (identifier) return stringWithFormat("valid: %@", *identifier);
  if (!NSStringExtensions::isNilOrWhiteSpace(identifier.error())) {
    logRequest(ASL_LEVEL_ERR, stringWithFormat("%@", identifier.error()));
  }
  return {};
}

std::string ORBExecInfoHandler::calculateHashForPath(const std::string& path) {
  FileHash hash(path);
  while (!isCancelled() && !hash.isOpen()) continue;
  while (!isCancelled() && !hash.proceed()) continue;
  return hash.text();
}

std::string ORBExecInfoHandler::calculateSourceUrlForPath(const std::string& path) {
  if (auto url = getURLFromMetaDataForFile(path)) return std::move(*url);
  if (auto url = getURLFromQuarantineForFile(path)) return std::move(*url);
  return {};
}

std::optional<Data> ORBExecInfoHandler::attribute(const std::string& path, std::string_view name) {
  auto bytes = environment_.attributes.getxattr(path, name, kAttributeBytes);
  if (bytes) return std::move(*bytes);
  logRequest(ASL_LEVEL_DEBUG, stringWithFormat("Failed to get attributes for file '%@': %d", path,
                                               bytes.error().osError));
  return std::nullopt;
}

std::optional<std::string> ORBExecInfoHandler::getURLFromMetaDataForFile(const std::string& path) {
  const auto bytes = attribute(path, kWhereFromsAttribute);
  if (!bytes) return std::nullopt;
  const auto list = readPropertyList(*bytes, path);
  const Array* urls = list ? list->array() : nullptr;
  const std::string* url = urls && !urls->empty() ? urls->front().string() : nullptr;
  // A text with NUL can't be sent, and the signature and the hash would be lost with it.
  if (!url || url->contains('\0')) return std::nullopt;
  return *url;
}

std::optional<std::string> ORBExecInfoHandler::getURLFromQuarantineForFile(
    const std::string& path) {
  const auto bytes = attribute(path, kQuarantine);
  if (!bytes) return std::nullopt;
  const std::string text(bytes->begin(), bytes->end());
  const std::string identifier =
      text.substr(text.rfind(';') + 1);  // The whole text if it has no ";".
  const auto home = homeOfLastUser();
  if (!home) {
    // If the caller has hung up, homeOfLastUser() returned without asking. The missing home then
    // says nothing about the database, so log nothing.
    if (!isCancelled()) logRequest(ASL_LEVEL_DEBUG, "Couldn't locate quarantine database");
    return std::nullopt;
  }
  const Instant deadline = environment_.now() + kQuarantineQueryTime;
  const auto isOver = [&] { return isCancelled() || environment_.now() >= deadline; };
  if (auto url = originOfQuarantineEvent(*home, identifier, isOver)) return url;
  logRequest(ASL_LEVEL_DEBUG, stringWithFormat("No source url found for path '%@'\n", path));
  return std::nullopt;
}

std::optional<std::string> ORBExecInfoHandler::homeOfLastUser() {
  // Requests ask one after the other, so that a server that hangs costs its time-outs once.
  const std::lock_guard asking(askingMutex_);
  // Another request may have asked for long, so check this now.
  const auto delegate = [this] {
    const std::lock_guard lock(delegateMutex_);
    return delegate_;
  }();
  if (!delegate || isCancelled()) return std::nullopt;
  const Instant asked = environment_.now();
  if (pausedUntil_ && asked < *pausedUntil_) return std::nullopt;
  const Value home = delegate->getLastLoggedInUserHomeDirectory();
  const Instant answered = environment_.now();
  pausedUntil_.reset();
  if (home.string()) return *home.string();
  if (answered - asked >= kSlowDelegateTime) pausedUntil_ = answered + kDelegatePause;
  return std::nullopt;
}
