#pragma once

#include <cstddef>

#include <dbus/dbus.h>

#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Appends a value as a variant, in the layout of Platform/Peers/PeerMessageRules.h. The caller must
// have checked the value by those rules, because libdbus aborts on ill-formed values. False if
// there is no memory.
bool appendVariant(DBusMessageIter* into, const Value& value);

// Reads the values of one message, which may come from a foreign program. Accepts, beside our own
// layout, integers of every width, arrays and dictionaries of any element type, and variants in
// variants. kMaxPeerDepth and kMaxPeerNodes limit all that one reader reads.
class DBusValueReader {
 public:
  explicit DBusValueReader(PeerMessageContents contents = PeerMessageContents::kValues)
      : contents_(contents) {}

  // The value at the iterator. Fails with kInvalid and names the part that can't be a value.
  Result<Value> read(DBusMessageIter* from);

 private:
  Result<Value> readEndpoint(DBusMessageIter* from);
  Result<Value> readScalar(DBusMessageIter* from, int type);
  Result<Value> readArray(DBusMessageIter* from);
  Result<Value> readElements(DBusMessageIter* elements);
  Result<Value> readEntries(DBusMessageIter* entries);
  Result<Value> readStruct(DBusMessageIter* from);

  const PeerMessageContents contents_;
  std::size_t nodes_ = 0;
  std::size_t depth_ = 0;
};

}  // namespace platform
