#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/NamedConnections/NSDistantObject.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

class NSConnection;

// The references that have crossed one connection: objects of ours that the peer may call, and
// objects of the peer that we hold. A reference is an argument or a result, and never inside a
// collection.
//
// It is sent as a dictionary with the only key "NSDistantObject", whose value has the object's
// "Number", "Class" and "Protocols". A program's own dictionary with that key is sent wrapped in
// such a dictionary, under "Value", so that only a reference can look like one.
class RemoteReferences {
 public:
  // The limits of live references in each direction, of the protocols of each, and of the bytes of
  // its texts.
  static constexpr std::size_t kMaxReferences = 128;
  static constexpr std::size_t kMaxProtocols = 16;
  static constexpr std::size_t kMaxNameSize = 255;

  // `value` in the form in which it is sent. Fails with kInvalid for an object that is not a
  // protocol checker, and with kExhausted beyond the limit.
  Result<Value> encode(const Value& value);

  // A value that arrived over `connection`. The same reference gives the same proxy for as long as
  // somebody keeps that. Fails with kInvalid for a malformed reference, and with kExhausted beyond
  // the limit; both are errors of the peer.
  Result<Value> decode(const Value& value, const std::shared_ptr<NSConnection>& connection);

  // Our object with that number; null if there never was one, or nobody keeps it any more.
  std::shared_ptr<const NSProxy> find(std::int64_t number) const;

 private:
  Result<std::int64_t> numberOf(const std::shared_ptr<const NSProtocolChecker>& object);

  // Weak: an object lives as long as its owner wants, and a proxy as long as its users.
  std::map<std::int64_t, std::weak_ptr<const NSProxy>> ours_;
  std::map<std::int64_t, std::weak_ptr<const NSDistantObject>> theirs_;
  std::int64_t lastNumber_ = NSDistantObject::kRootObject;
};

}  // namespace platform
