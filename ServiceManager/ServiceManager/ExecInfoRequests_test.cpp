// Requests for executable information over connections: they take turns, and end with their client.

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Digests/Digest.h"
#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Digests/FileSha256.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using Names = std::vector<std::string>;

constexpr std::uintmax_t kBlock = ORBExecInfoHandler::kBytesPerBlock;
constexpr std::uintmax_t kEndless = std::uintmax_t{1} << 43;  // 8 TiB, which no test would survive.

std::string fileNameOf(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

// Calls a function when a request for one file begins, and notes the file of each request.
class Interrupting final : public CodeSignatures {
 public:
  Interrupting(CodeSignatures& signatures, Names& steps) : signatures_(signatures), steps_(steps) {}

  CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) override {
    steps_.push_back("signing of " + fileNameOf(path));
    if (path == file) action();
    return signatures_.SecStaticCodeCreateWithPath(path);
  }
  std::optional<CodeProtection> protectionOf(const std::string& path) override {
    return signatures_.protectionOf(path);
  }

  std::string file;
  std::function<void()> action;

 private:
  CodeSignatures& signatures_;
  Names& steps_;
};

// Notes each read of a file's attributes.
class Watched final : public ExtendedAttributes {
 public:
  Watched(ExtendedAttributes& attributes, Names& steps) : attributes_(attributes), steps_(steps) {}

  Result<Data> getxattr(const std::string& path, std::string_view name,
                        std::size_t bufferSize) override {
    steps_.push_back("source of " + fileNameOf(path));
    return attributes_.getxattr(path, name, bufferSize);
  }

 private:
  ExtendedAttributes& attributes_;
  Names& steps_;
};

class ExecInfoRequests : public ServiceManagerFixture, public NSXPCListenerDelegate {
 protected:
  ExecInfoRequests() {
    listener_ = server_.xpc.makeAnonymousListener();
    listener_->setDelegate(delegate_);
    listener_->resume();
  }
  ~ExecInfoRequests() override {
    clients_.clear();
    accepted_.clear();
    listener_.reset();
    loop_.runReady();
  }

  // Does the same as the handler, but requests wait until serve(), so that they begin in a known
  // order.
  bool listener(NSXPCListener& listener,
                const std::shared_ptr<NSXPCConnection>& connection) override {
    accepted_.push_back(connection);
    const bool accepts = handler_->listener(listener, connection);
    connection->suspend();
    return accepts;
  }
  void serve() {
    loop_.runReady();
    for (const auto& connection : accepted_) connection->resume();
    loop_.runReady();
  }

  std::size_t connect() {
    auto connection = client_.xpc.makeConnection(listener_->endpoint());
    connection->setRemoteObjectInterface(protocols_.find(kORBExecutableInfoProtocol));
    connection->resume();
    clients_.push_back(std::move(connection));
    loop_.runReady();
    return clients_.size() - 1;
  }
  // Adds its answer to the answers, or "gone" if the connection ends.
  void ask(std::size_t client, const std::string& path) {
    clients_[client]->sendMessage(
        "requestExecutableInfo:withReply:", {Value(path)},
        [this, path](const Array& reply) {
          const std::string hash = *reply.at(1).string();
          const std::string name = fileNameOf(path);
          replies_.push_back(reply);
          answers_.push_back(name + (hash.empty() ? " unknown" : ""));
          if (!hash.empty()) {
            EXPECT_EQ(hash, hexadecimalText(**sha256OfFile(path))) << name;
          }
        },
        [this](const NSError&) { answers_.emplace_back("gone"); });
  }

  std::string sparseFile(const std::string& name, std::uintmax_t size) {
    const std::string path = folder_.write(name, "");
    std::filesystem::resize_file(path, size);
    return path;
  }

  TemporaryFolder folder_;
  Names steps_;
  Interrupting interruptible_{signatures_, steps_};
  Watched watched_{attributes_, steps_};
  FakeXPC server_{network_, {200, 0, 0}, systemLog_};
  FakeXPC client_{network_, {300, 501, 20}, systemLog_};
  std::shared_ptr<ORBExecInfoHandler> handler_ = std::make_shared<ORBExecInfoHandler>(
      ORBExecInfoHandler::Environment{interruptible_, watched_, protocols_}, nullptr);
  const std::shared_ptr<NSXPCListenerDelegate> delegate_{this, [](NSXPCListenerDelegate*) {}};
  std::shared_ptr<NSXPCListener> listener_;
  std::vector<std::shared_ptr<NSXPCConnection>> accepted_;
  std::vector<std::shared_ptr<NSXPCConnection>> clients_;
  Names answers_;
  std::vector<Array> replies_;
};

class RequestOfSeveralTurns : public ExecInfoRequests {
 protected:
  RequestOfSeveralTurns() {
    signatures_.addValid(file_, SecStaticCode::Kind::kProgram, "com.vantor.sample");
    attributes_.set(
        file_, "com.apple.metadata:kMDItemWhereFroms",
        *writePropertyList(Array{"https://example.com/long"}, PropertyListFormat::kBinary));
    ask(connect(), file_);
    interruptible_.file = folder_.write("short", "abc");
    interruptible_.action = [] {};
    ask(connect(), interruptible_.file);  // While the request is in progress.
  }

  const std::string file_ = sparseFile("long", 3 * kBlock + 1);
};

TEST_F(RequestOfSeveralTurns, IsAnsweredOnceWithItsSigningAndSource) {
  serve();
  EXPECT_EQ(answers_, (Names{"short", "long"}));
  EXPECT_EQ(replies_.back(),
            (Array{Value("valid: com.vantor.sample"), Value(hexadecimalText(**sha256OfFile(file_))),
                   Value("https://example.com/long")}));
  EXPECT_EQ(steps_, (Names{"signing of long", "signing of short", "source of short",
                           "source of short", "source of long"}));
}

TEST_F(RequestOfSeveralTurns, IsNotContinuedWhenItsClientHungUp) {
  interruptible_.action = [this] { accepted_[0]->invalidate(); };
  serve();
  EXPECT_EQ(steps_,
            (Names{"signing of long", "signing of short", "source of short", "source of short"}));
}

TEST_F(ExecInfoRequests, AShortRequestOvertakesLongRequests) {
  ask(connect(), sparseFile("long", 3 * kBlock + 1));
  ask(connect(), sparseFile("longer", 5 * kBlock));
  ask(connect(), folder_.write("short", "abc"));
  serve();
  EXPECT_EQ(answers_, (Names{"short", "long", "longer"}));
}

TEST_F(ExecInfoRequests, RequestsOfOneBlockAreAnsweredInOrder) {
  ask(connect(), sparseFile("at", kBlock));
  ask(connect(), sparseFile("above", kBlock + 1));
  ask(connect(), sparseFile("below", kBlock - 1));
  serve();
  EXPECT_EQ(answers_, (Names{"at", "below", "above"}));
}

TEST_F(ExecInfoRequests, RequestsOfOneConnectionAreAnsweredInOrder) {
  const std::size_t client = connect();
  ask(client, sparseFile("first", 5 * kBlock));
  ask(client, folder_.write("second", "abc"));
  ask(client, sparseFile("third", 2 * kBlock));
  serve();
  EXPECT_EQ(answers_, (Names{"first", "second", "third"}));
}

TEST_F(ExecInfoRequests, TheEndOfItsConnectionEndsAHash) {
  ask(connect(), sparseFile("endless", kEndless));
  const std::size_t other = connect();
  interruptible_.file = folder_.write("short", "abc");
  interruptible_.action = [this] { accepted_[0]->invalidate(); };
  ask(other, interruptible_.file);
  serve();
  // The answers that were found before may still be sent.
  EXPECT_THAT(answers_,
              testing::UnorderedElementsAre("short", testing::AnyOf("gone", "endless unknown")));
}

TEST_F(ExecInfoRequests, ADisconnectedClientIsNotServedAnyFurther) {
  const std::size_t client = connect();
  interruptible_.file = sparseFile("endless", kEndless);
  attributes_.set(interruptible_.file, "com.apple.quarantine", "id");
  interruptible_.action = [&] {
    clients_[client]->invalidate();
    loop_.runReady();
  };
  ask(client, interruptible_.file);
  serve();
  EXPECT_EQ(answers_, Names{"gone"});
  EXPECT_EQ(countInLog("Can't create security reference"), 1u);
  EXPECT_EQ(countInLog("Failed to get attributes"), 0u);
  EXPECT_EQ(countInLog("Couldn't locate quarantine database"), 0u);
}

TEST_F(ExecInfoRequests, TheDaemonsEndEndsAHashWithAnAnswer) {
  ask(connect(), sparseFile("endless", kEndless));
  const std::size_t other = connect();
  interruptible_.file = folder_.write("short", "abc");
  interruptible_.action = [this] { handler_->stop(); };
  ask(other, interruptible_.file);
  serve();
  EXPECT_EQ(answers_, (Names{"short unknown", "endless unknown"}));
}

}  // namespace
