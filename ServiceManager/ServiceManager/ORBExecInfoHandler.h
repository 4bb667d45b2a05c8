#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Files/ExtendedAttributes.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCListener.h"

// Knows the home folder of the user who logged in last.
class ExecInfoHandlerDelegate {
 public:
  virtual ~ExecInfoHandlerDelegate() = default;
  // The home folder, a string, or nil if it is not known. Called on an XPC queue.
  virtual platform::Value getLastLoggedInUserHomeDirectory() = 0;
};

// Answers requests about any file: its signer, its SHA-256 and the URL that it was downloaded from.
// Only a client that got the endpoint from the registry can ask.
//
// Each request is served on its connection's queue, however long that takes; several are served at
// once. A file is hashed in pieces, each of which is a block of that queue. After as many blocks as
// a queue may run in a row, the other connections get their turns, so that one client's large file
// does not delay another's small one. A request ends when its client closes the connection. An
// answer that can't be found is the empty text, and the cause is in the log.
class ORBExecInfoHandler final : public platform::NSXPCListenerDelegate,
                                 public platform::NSXPCExportedObject,
                                 public std::enable_shared_from_this<ORBExecInfoHandler> {
 public:
  static constexpr char kClassName[] = "ORBExecInfoHandler";

  // How many bytes of a file are hashed in one block of the queue.
  static constexpr std::uint64_t kBytesPerBlock = 1 << 20;
  // The time limit of a query in a user's quarantine database.
  static constexpr std::chrono::seconds kQuarantineQueryTime{2};
  // If the delegate takes at least kSlowDelegateTime and knows no home, its settings server hangs.
  // It is then not asked again for kDelegatePause, since each file with a quarantine record would
  // cost that time-out.
  static constexpr std::chrono::seconds kSlowDelegateTime{1};
  static constexpr std::chrono::seconds kDelegatePause{30};

  // The parts of the platform that it uses; all of them outlive this.
  struct Environment {
    platform::CodeSignatures& codeSignatures;
    platform::ExtendedAttributes& attributes;
    const platform::ProtocolTable& protocols;
    // These two are called on any thread.
    std::function<platform::Instant()> now = platform::monotonicTime;
    std::function<platform::CodeSigningResult<platform::SecRequirement>(std::string_view text)>
        makeRequirement = platform::SecRequirementCreateWithString;
  };
  // initWithDelegate: - a call of the delegate may go on after setDelegate(nullptr), and keeps the
  // delegate meanwhile.
  ORBExecInfoHandler(const Environment& environment,
                     std::shared_ptr<ExecInfoHandlerDelegate> delegate);
  ORBExecInfoHandler(const ORBExecInfoHandler&) = delete;
  ORBExecInfoHandler& operator=(const ORBExecInfoHandler&) = delete;

  void setDelegate(std::shared_ptr<ExecInfoHandlerDelegate> delegate);
  // Requests in progress end soon, with the answers that they have found so far, and later ones get
  // empty answers: the daemon is about to end, and neither a large file nor a user's database must
  // delay that. A check of a signature that has begun, and a call of the delegate, are not cut
  // short.
  void stop() { stop_.request_stop(); }

  bool listener(
      platform::NSXPCListener& listener,
      const std::shared_ptr<platform::NSXPCConnection>& shouldAcceptNewConnection) override;
  void receiveMessage(std::string_view selector, const platform::Array& arguments,
                      platform::XPCReply reply) override;

  using Reply = std::move_only_function<void(const std::string& signing, const std::string& hash,
                                             const std::string& sourceUrl)>;
  // Replies before it returns, except within a connection's message, where the reply may come
  // later.
  void requestExecutableInfo(const std::string& path, Reply withReply);

  // "valid: IDENTIFIER", or the empty text.
  std::string calculateSigningForPath(const std::string& path);
  // 64 hexadecimal digits; the empty text also for an empty file.
  std::string calculateHashForPath(const std::string& path);
  std::string calculateSourceUrlForPath(const std::string& path);
  std::optional<std::string> getURLFromMetaDataForFile(const std::string& path);
  std::optional<std::string> getURLFromQuarantineForFile(const std::string& path);

 private:
  class FileHash;
  struct Request;

  // Does the next step of a request. True if its signing and its hash are known.
  bool advance(Request& request);
  // Continues to hash, and replies when all is known.
  void proceed(std::unique_ptr<Request> request);
  // Whether the answer is no longer needed: the daemon ends, or the client has closed the
  // connection.
  bool isCancelled() const;
  std::optional<platform::Data> attribute(const std::string& path, std::string_view name);
  std::optional<std::string> homeOfLastUser();

  const Environment environment_;
  std::stop_source stop_;
  std::mutex delegateMutex_;  // never held during a call of the delegate
  std::shared_ptr<ExecInfoHandlerDelegate> delegate_;
  std::mutex askingMutex_;                        // held by the one request that calls the delegate
  std::optional<platform::Instant> pausedUntil_;  // guarded by askingMutex_
};
