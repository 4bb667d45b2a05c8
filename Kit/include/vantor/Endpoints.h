#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <vantor/Api.h>
#include <vantor/Program.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {

struct EndpointParts;
struct PeerParts;

// A message has a selector with one colon for each argument and one more for the reply, at its end:
// "scanFile:withReply:" has one argument.

// A listener of this program that other programs of the product find by a name. The service
// manager's registry asks for it when the first client looks it up, and it is registered then.
class VANTOR_KIT_API Endpoint {
 public:
  // Gets a message with its arguments and returns the values of the reply. An error ends the
  // client's connection, because a reply has no room for it. Runs on threads of the library: the
  // messages of one client one after the other, those of several clients at the same time. It must
  // check the types of the arguments.
  using Handler = std::function<Result<Array>(const std::string& selector, const Array& arguments)>;

  // Listens from now on. Other selectors than these are refused. The program outlives this. Fails
  // with kExhausted if there are no descriptors.
  static Result<Endpoint> serve(Program& program, std::string_view name,
                                const std::vector<std::string>& selectors, Handler handler);

  Endpoint(Endpoint&& other) noexcept;
  Endpoint& operator=(Endpoint&& other) noexcept;
  // Ends the listener. Its clients' connections go on until they or the program end: all that the
  // handler uses outlives the program, not only the endpoint.
  ~Endpoint();

 private:
  explicit Endpoint(std::unique_ptr<EndpointParts> parts);

  std::unique_ptr<EndpointParts> parts_;
};

// A connection to another program's endpoint. It ends with that program.
class VANTOR_KIT_API Peer {
 public:
  // Looks the name up, and waits until its owner has registered it. Blocks for `timeOut` at most.
  // Fails with kNotFound if nobody has registered it by then, and with kTimedOut if the service
  // manager does not answer. `selectors` are the messages that will be sent.
  static Result<Peer> lookUp(Program& program, std::string_view name,
                             const std::vector<std::string>& selectors,
                             std::chrono::milliseconds timeOut);

  Peer(Peer&& other) noexcept;
  Peer& operator=(Peer&& other) noexcept;
  ~Peer();

  // Sends a message and blocks for the values of its reply. Fails with kTimedOut, with kNotFound if
  // the other program has ended or has refused the connection, and with kDenied if it refuses the
  // message. Any thread may call it.
  Result<Array> call(std::string_view selector, const Array& arguments,
                     std::chrono::milliseconds timeOut);

 private:
  explicit Peer(std::unique_ptr<PeerParts> parts);

  std::unique_ptr<PeerParts> parts_;
};

// The service manager's facts about a file; an empty text stands for an unknown one.
struct ExecutableInfo {
  std::string signing;  // "valid: " and the identifier of a signed program
  std::string sha256;   // in hexadecimal digits
  std::string source;   // the URL from which it was downloaded
};

// The path is absolute. Hashing blocks for a time that depends on the file's size.
VANTOR_KIT_API Result<ExecutableInfo> executableInfo(Program& program, std::string_view path,
                                                     std::chrono::milliseconds timeOut);

}  // namespace vantor
