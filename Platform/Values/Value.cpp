#include "Platform/Values/Value.h"

#include <cmath>

namespace platform {
namespace {

// Exact, because the integer is not rounded to a double.
bool equal(std::int64_t integer, double real) {
  constexpr double kTwoTo63 = 9'223'372'036'854'775'808.0;
  if (!(real >= -kTwoTo63 && real < kTwoTo63)) return false;
  return std::trunc(real) == real && static_cast<std::int64_t>(real) == integer;
}

std::int64_t integral(const Value& number) {
  if (const auto boolean = number.boolean()) return *boolean ? 1 : 0;
  return *number.integer();
}

bool equalNumbers(const Value& a, const Value& b) {
  if (a.real() && b.real()) return *a.real() == *b.real();
  if (a.real()) return equal(integral(b), *a.real());
  if (b.real()) return equal(integral(a), *b.real());
  return integral(a) == integral(b);
}

}  // namespace

Value Value::nullMarker() {
  Value value;
  value.storage_ = NullMarker{};
  return value;
}

Value::Value(Array array) {
  for (Value& element : array) {
    if (element.isNil()) element = nullMarker();
  }
  storage_ = std::make_shared<const Array>(std::move(array));
}

Value::Value(Dictionary dictionary)
    : storage_(std::make_shared<const Dictionary>(std::move(dictionary))) {}

Value::Value(std::shared_ptr<const RemoteObject> object) {
  if (object) storage_ = std::move(object);
}

bool Value::isNumber() const {
  return type() == Type::kBoolean || type() == Type::kInteger || type() == Type::kReal;
}

std::shared_ptr<const RemoteObject> Value::remoteObject() const {
  const auto* held = std::get_if<std::shared_ptr<const RemoteObject>>(&storage_);
  return held ? *held : nullptr;
}

const Value& Value::operator[](std::string_view key) const {
  static const Value kNil;
  const Dictionary* held = dictionary();
  return held ? (*held)[key] : kNil;
}

bool Value::operator==(const Value& other) const {
  if (isNumber() && other.isNumber()) return equalNumbers(*this, other);
  if (type() != other.type()) return false;
  switch (type()) {
    case Type::kNil:
    case Type::kNullMarker:
      return true;
    case Type::kBoolean:
    case Type::kInteger:
    case Type::kReal:
      break;  // Compared above.
    case Type::kString:
      return *string() == *other.string();
    case Type::kData:
      return *data() == *other.data();
    case Type::kDate:
      return *date() == *other.date();
    case Type::kArray:
      return *array() == *other.array();
    case Type::kDictionary:
      return *dictionary() == *other.dictionary();
    case Type::kRemoteObject:
      return remoteObject() == other.remoteObject();
  }
  return false;
}

std::string_view className(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNil:
      return "";
    case Value::Type::kNullMarker:
      return "NSNull";
    case Value::Type::kBoolean:
    case Value::Type::kInteger:
    case Value::Type::kReal:
      return "NSNumber";
    case Value::Type::kString:
      return "NSString";
    case Value::Type::kData:
      return "NSData";
    case Value::Type::kDate:
      return "NSDate";
    case Value::Type::kArray:
      return "NSArray";
    case Value::Type::kDictionary:
      return "NSDictionary";
    case Value::Type::kRemoteObject:
      return value.remoteObject()->className();
  }
  return "";
}

}  // namespace platform
