#include "Platform/NamedConnections/RemoteReferences.h"

#include <string>
#include <utility>
#include <vector>

#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

constexpr char kMark[] = "NSDistantObject";
constexpr char kNumber[] = "Number";
constexpr char kClass[] = "Class";
constexpr char kProtocols[] = "Protocols";
constexpr char kValue[] = "Value";

std::unexpected<Error> tooMany() {
  return std::unexpected(
      Error{ErrorCode::kExhausted, 0,
            stringWithFormat("more than %lu references over one connection",
                             static_cast<unsigned long>(RemoteReferences::kMaxReferences))});
}

// Removes references that nobody keeps. Returns whether there is room for one more.
template <typename Object>
bool makeRoom(std::map<std::int64_t, std::weak_ptr<Object>>& references) {
  if (references.size() < RemoteReferences::kMaxReferences) return true;
  std::erase_if(references, [](const auto& entry) { return entry.second.expired(); });
  return references.size() < RemoteReferences::kMaxReferences;
}

const std::string* nameIn(const Value& value) {
  const std::string* name = value.string();
  if (name == nullptr || name->empty() || name->size() > RemoteReferences::kMaxNameSize)
    return nullptr;
  return name;
}

Result<NSDistantObject::Description> readReference(const Dictionary& reference) {
  NSDistantObject::Description description;
  const auto number = reference[kNumber].integer();
  if (!number || *number <= NSDistantObject::kRootObject)
    return invalid("a reference without an object's number");
  description.number = *number;
  const std::string* objectClass = nameIn(reference[kClass]);
  if (objectClass == nullptr) return invalid("a reference without a class");
  description.className = *objectClass;
  const Array* protocols = reference[kProtocols].array();
  if (protocols == nullptr || protocols->size() > RemoteReferences::kMaxProtocols)
    return invalid("a reference without protocols, or with too many");
  for (const Value& protocol : *protocols) {
    const std::string* name = nameIn(protocol);
    if (name == nullptr) return invalid("a reference with a protocol that is no name");
    description.protocolNames.push_back(*name);
  }
  if (reference.size() != 3) return invalid("a reference with a key of its own");
  return description;
}

}  // namespace

Result<std::int64_t> RemoteReferences::numberOf(
    const std::shared_ptr<const NSProtocolChecker>& object) {
  for (const auto& [number, ours] : ours_) {
    if (ours.lock() == object) return number;
  }
  if (!makeRoom(ours_)) return tooMany();
  ours_[++lastNumber_] = object;
  return lastNumber_;
}

Result<Value> RemoteReferences::encode(const Value& value) {
  if (const Dictionary* dictionary = value.dictionary();
      dictionary != nullptr && dictionary->contains(kMark)) {
    return Value(Dictionary{{kMark, Value(Dictionary{{kValue, value}})}});
  }
  if (value.type() != Value::Type::kRemoteObject) return value;
  const auto object = std::dynamic_pointer_cast<const NSProtocolChecker>(value.remoteObject());
  if (!object)
    return invalid(stringWithFormat("an object of class %@ can't be passed on", className(value)));
  auto number = numberOf(object);
  if (!number) return std::unexpected(std::move(number.error()));
  Array protocols;
  if (object->protocol() != nullptr) protocols.emplace_back(object->protocol()->name());
  return Value(Dictionary{{kMark, Value(Dictionary{{kNumber, Value(*number)},
                                                   {kClass, Value(object->className())},
                                                   {kProtocols, Value(std::move(protocols))}})}});
}

Result<Value> RemoteReferences::decode(const Value& value,
                                       const std::shared_ptr<NSConnection>& connection) {
  const Dictionary* outer = value.dictionary();
  if (outer == nullptr || !outer->contains(kMark)) return value;
  const Dictionary* content = (*outer)[kMark].dictionary();
  if (outer->size() != 1 || content == nullptr) return invalid("half a reference");
  if (content->contains(kValue)) {
    // The wrapped dictionary has the mark itself, or it would not have been wrapped.
    const Value& wrapped = (*content)[kValue];
    if (content->size() == 1 && !wrapped[kMark].isNil()) return wrapped;
    return invalid("a reference that is a value");
  }
  auto description = readReference(*content);
  if (!description) return std::unexpected(std::move(description.error()));
  const std::int64_t number = description->number;
  if (const auto known = theirs_.find(number); known != theirs_.end()) {
    if (auto proxy = known->second.lock()) return Value(std::move(proxy));
  }
  if (!makeRoom(theirs_)) return tooMany();
  auto proxy = std::make_shared<const NSDistantObject>(connection, std::move(*description));
  theirs_[number] = proxy;
  return Value(std::move(proxy));
}

std::shared_ptr<const NSProxy> RemoteReferences::find(std::int64_t number) const {
  const auto found = ours_.find(number);
  return found == ours_.end() ? nullptr : found->second.lock();
}

}  // namespace platform
