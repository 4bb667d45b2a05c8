#include "Kit/Values.h"

#include <utility>

#include "Platform/Texts/Description.h"

namespace vantor {

struct Value::Content {
  platform::Value value;
};

Value ValueAccess::from(const platform::Value& value) {
  Value made;
  const bool isNil = value.isNil() || value.type() == platform::Value::Type::kNullMarker;
  if (!isNil) made.content_ = std::make_shared<const Value::Content>(Value::Content{value});
  return made;
}

platform::Value ValueAccess::of(const Value& value) {
  return value.content_ ? value.content_->value : platform::Value();
}

platform::Array platformArray(const Array& values) {
  platform::Array made;
  for (const Value& value : values) made.push_back(ValueAccess::of(value));
  return made;
}

Array kitArray(const platform::Array& values) {
  Array made;
  for (const platform::Value& value : values) made.push_back(ValueAccess::from(value));
  return made;
}

Value::Value() = default;
Value::Value(bool boolean) : Value(ValueAccess::from(boolean)) {}
Value::Value(int integer) : Value(ValueAccess::from(integer)) {}
Value::Value(std::int64_t integer) : Value(ValueAccess::from(integer)) {}
Value::Value(double real) : Value(ValueAccess::from(real)) {}
Value::Value(const char* text) : Value(ValueAccess::from(text)) {}
Value::Value(std::string_view text) : Value(ValueAccess::from(text)) {}
Value::Value(const std::string& text) : Value(ValueAccess::from(text)) {}
Value::Value(const Bytes& bytes) : Value(ValueAccess::from(bytes)) {}
Value::Value(const Array& array) : Value(ValueAccess::from(platformArray(array))) {}
Value::Value(const Dictionary& dictionary) {
  platform::Dictionary made;
  for (const auto& [key, value] : dictionary) made.set(key, ValueAccess::of(value));
  *this = ValueAccess::from(std::move(made));
}

Value::Type Value::type() const {
  using From = platform::Value::Type;
  switch (ValueAccess::of(*this).type()) {
    case From::kNil:
    case From::kNullMarker:
      return Type::kNil;
    case From::kBoolean:
      return Type::kBoolean;
    case From::kInteger:
      return Type::kInteger;
    case From::kReal:
      return Type::kReal;
    case From::kString:
      return Type::kText;
    case From::kData:
      return Type::kBytes;
    case From::kDate:
      return Type::kDate;
    case From::kArray:
      return Type::kArray;
    case From::kDictionary:
      return Type::kDictionary;
    case From::kRemoteObject:
      break;
  }
  return Type::kOther;
}

std::optional<bool> Value::boolean() const { return ValueAccess::of(*this).boolean(); }
std::optional<std::int64_t> Value::integer() const { return ValueAccess::of(*this).integer(); }
std::optional<double> Value::real() const { return ValueAccess::of(*this).real(); }

std::optional<std::string> Value::text() const {
  const std::string* const text = content_ ? content_->value.string() : nullptr;
  return text ? std::optional(*text) : std::nullopt;
}

std::optional<Bytes> Value::bytes() const {
  const platform::Data* const data = content_ ? content_->value.data() : nullptr;
  return data ? std::optional(*data) : std::nullopt;
}

std::optional<double> Value::date() const {
  const auto date = ValueAccess::of(*this).date();
  return date ? std::optional(date->secondsSinceReferenceDate) : std::nullopt;
}

std::optional<Array> Value::array() const {
  const platform::Array* const array = content_ ? content_->value.array() : nullptr;
  return array ? std::optional(kitArray(*array)) : std::nullopt;
}

std::optional<Dictionary> Value::dictionary() const {
  const platform::Dictionary* const held = content_ ? content_->value.dictionary() : nullptr;
  if (!held) return std::nullopt;
  Dictionary made;
  for (const auto& [key, value] : *held) made.emplace(key, ValueAccess::from(value));
  return made;
}

bool Value::operator==(const Value& other) const {
  return ValueAccess::of(*this) == ValueAccess::of(other);
}

std::string Value::description() const { return platform::description(ValueAccess::of(*this)); }

Error errorOf(const platform::Error& error) {
  const auto code = [&] {
    switch (error.code) {
      case platform::ErrorCode::kNotFound:
        return ErrorCode::kNotFound;
      case platform::ErrorCode::kDenied:
        return ErrorCode::kDenied;
      case platform::ErrorCode::kInvalid:
        return ErrorCode::kInvalid;
      case platform::ErrorCode::kExhausted:
        return ErrorCode::kExhausted;
      case platform::ErrorCode::kChanged:
      case platform::ErrorCode::kSystem:
        break;
    }
    return ErrorCode::kFailed;
  };
  return {code(), platform::describe(error)};
}

Error errorOf(const platform::NSException& exception) {
  const std::string& name = exception.name;
  const ErrorCode code = name == platform::kNSPortTimeoutException            ? ErrorCode::kTimedOut
                         : name == platform::kNSFailedAuthenticationException ? ErrorCode::kDenied
                         : name == platform::kNSInvalidArgumentException      ? ErrorCode::kInvalid
                         : name == platform::kNSInvalidSendPortException      ? ErrorCode::kNotFound
                                                                              : ErrorCode::kFailed;
  return {code, exception.reason.empty() ? name : exception.reason};
}

}  // namespace vantor
