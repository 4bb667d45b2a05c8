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

// The references that have crossed one connection: objects of ours that the peer may call, and the
// peer's that we hold. A reference is an argument or a result; none can stand inside a collection.
//
// It travels as a dictionary with the one key "NSDistantObject", under which stand the object's
// "Number", "Class" and "Protocols". A dictionary of the program's own that has that key travels
// wrapped in one like it, under "Value", so that nothing but a reference can look like one.
class RemoteReferences {
 public:
  // References that are alive at once, in each direction, what they may carry, and how long its
  // texts may be, in bytes.
  static constexpr std::size_t kMaxReferences = 128;
  static constexpr std::size_t kMaxProtocols = 16;
  static constexpr std::size_t kMaxNameSize = 255;

  // `value` as it travels. An object that is not a protocol checker, or one too many, is refused
  // with kInvalid or kExhausted.
  Result<Value> encode(const Value& value);

  // What came over `connection`; the same reference is the same proxy for as long as somebody keeps
  // that. What is no reference but looks like one, and one too many, is refused with kInvalid or
  // kExhausted: the peer breaks the rules.
  Result<Value> decode(const Value& value, const std::shared_ptr<NSConnection>& connection);

  // The object of ours that the peer knows by that number; null where it never was one, or nobody
  // keeps it any more.
  std::shared_ptr<const NSProxy> find(std::int64_t number) const;

 private:
  Result<std::int64_t> numberOf(const std::shared_ptr<const NSProtocolChecker>& object);

  // Weak: an object lives as long as its owner wants, a proxy as long as its users do.
  std::map<std::int64_t, std::weak_ptr<const NSProxy>> ours_;
  std::map<std::int64_t, std::weak_ptr<const NSDistantObject>> theirs_;
  std::int64_t lastNumber_ = NSDistantObject::kRootObject;
};

}  // namespace platform
