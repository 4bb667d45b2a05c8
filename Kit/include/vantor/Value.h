#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vantor/Api.h>

namespace vantor {

class Value;
using Array = std::vector<Value>;
using Bytes = std::vector<std::uint8_t>;
using Dictionary = std::map<std::string, Value, std::less<>>;

// A value as programs of the product send them to each other: a setting, an argument, an answer. It
// never changes, copies are cheap, and threads may share it.
//
// Texts are UTF-8 without NUL. Arrays and dictionaries nest 16 deep at most. A nil inside an array
// or a dictionary arrives as nil.
class VANTOR_KIT_API Value {
 public:
  enum class Type {
    kNil,
    kBoolean,
    kInteger,
    kReal,
    kText,
    kBytes,
    kDate,
    kArray,
    kDictionary,
    kOther
  };

  Value();  // nil, the absence of a value
  Value(bool boolean);
  Value(int integer);
  Value(std::int64_t integer);
  Value(double real);
  Value(const char* text);
  Value(std::string_view text);
  Value(const std::string& text);
  Value(const Bytes& bytes);
  Value(const Array& array);
  Value(const Dictionary& dictionary);

  Type type() const;
  bool isNil() const { return type() == Type::kNil; }

  // The content if the value has exactly that type.
  std::optional<bool> boolean() const;
  std::optional<std::int64_t> integer() const;
  std::optional<double> real() const;
  std::optional<std::string> text() const;
  std::optional<Bytes> bytes() const;
  std::optional<double> date() const;  // in seconds since 2001-01-01T00:00:00Z
  std::optional<Array> array() const;
  std::optional<Dictionary> dictionary() const;

  // Numbers are equal by their value, whatever their type: true, 1 and 1.0.
  bool operator==(const Value& other) const;
  bool operator!=(const Value& other) const { return !(*this == other); }

  // For logs and persons; its format may change.
  std::string description() const;

 private:
  friend struct ValueAccess;
  struct Content;
  std::shared_ptr<const Content> content_;  // shared by all copies; null for nil
};

}  // namespace vantor
