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

// Who knows where the user who last logged in lives.
class ExecInfoHandlerDelegate {
 public:
  virtual ~ExecInfoHandlerDelegate() = default;
  // That user's home folder, a string, or nil. Called on an XPC queue.
  virtual platform::Value getLastLoggedInUserHomeDirectory() = 0;
};

// Tells of any file who signed it, what its SHA-256 is and where it was downloaded from. Only who
// got the endpoint out of the registry can ask.
//
// Each request is served on its connection's queue, however long that takes; several at once. A
// file is hashed in pieces, each a block of that queue, and after so many of them as a queue may
// run in a row the other connections have their turns, so that nobody's large file holds up
// another's small one; who ends the connection ends the request. Each answer that can't be had is
// the empty text, and the cause is in the log.
class ORBExecInfoHandler final : public platform::NSXPCListenerDelegate,
                                 public platform::NSXPCExportedObject,
                                 public std::enable_shared_from_this<ORBExecInfoHandler> {
 public:
  static constexpr char kClassName[] = "ORBExecInfoHandler";

  // How much of a file is hashed in one block of the queue.
  static constexpr std::uint64_t kBytesInOneGo = 1 << 20;
  // How long a user's quarantine database may be looked at.
  static constexpr std::chrono::seconds kQuarantineQueryTime{2};
  // A delegate that has taken so long to know of no home is not asked again before that time: it
  // waits for a settings server that hangs, and would for every file with a quarantine record.
  static constexpr std::chrono::seconds kLongQuestion{1};
  static constexpr std::chrono::seconds kQuestionPause{30};

  // What it asks of the platform; all of it outlives this.
  struct Environment {
    platform::CodeSignatures& codeSignatures;
    platform::ExtendedAttributes& attributes;
    const platform::ProtocolTable& protocols;
    // Any thread calls these two.
    std::function<platform::Instant()> now = platform::monotonicTime;
    std::function<platform::CodeSigningResult<platform::SecRequirement>(std::string_view text)>
        makeRequirement = platform::SecRequirementCreateWithString;
  };
  // initWithDelegate: - the delegate is let go of by setDelegate(nullptr) before it ends.
  ORBExecInfoHandler(const Environment& environment, ExecInfoHandlerDelegate* delegate);
  ORBExecInfoHandler(const ORBExecInfoHandler&) = delete;
  ORBExecInfoHandler& operator=(const ORBExecInfoHandler&) = delete;

  // Waits for a question to the delegate that is being answered.
  void setDelegate(ExecInfoHandlerDelegate* delegate);
  // Requests that are being served end soon, without what they have not found out yet, and later
  // ones are answered with nothing: the daemon is about to end, and neither a large file nor a
  // user's database is to hold it up. The look at a signature that has begun, and a question to the
  // delegate, are not cut short.
  void stop() { stop_.request_stop(); }

  bool listener(
      platform::NSXPCListener& listener,
      const std::shared_ptr<platform::NSXPCConnection>& shouldAcceptNewConnection) override;
  void receiveMessage(std::string_view selector, const platform::Array& arguments,
                      platform::XPCReply reply) override;

  using Reply = std::move_only_function<void(const std::string& signing, const std::string& hash,
                                             const std::string& sourceUrl)>;
  // Replies at once, but within a connection's message, where that may take longer than this call.
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

  // Hashes on, and replies when all is known.
  void proceed(std::unique_ptr<Request> request);
  // Whether nobody waits for the answer: the daemon ends, or the caller has ended the connection.
  bool isUnwanted() const;
  std::optional<platform::Data> attribute(const std::string& path, std::string_view name);
  std::optional<std::string> homeOfLastUser();

  const Environment environment_;
  std::stop_source stop_;
  std::mutex delegateMutex_;
  ExecInfoHandlerDelegate* delegate_;
  std::optional<platform::Instant> pausedUntil_;  // under that mutex
};
