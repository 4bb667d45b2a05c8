#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "Platform/Values/Dictionary.h"

namespace platform {

using Array = std::vector<Value>;
using Data = std::vector<std::uint8_t>;

// A point in time in the format of property lists.
struct Date {
  // Seconds since 2001-01-01T00:00:00Z without leap seconds; a whole number in XML.
  double secondsSinceReferenceDate = 0;

  bool operator==(const Date&) const = default;
};

// Seconds from 1970-01-01T00:00:00Z to the reference date of `Date`.
inline constexpr std::int64_t kReferenceDateUnixSeconds = 978'307'200;

// An object in another place that is called by messages.
class RemoteObject {
 public:
  virtual ~RemoteObject() = default;
  virtual std::string_view className() const = 0;
  // Answered without a message: a reference contains the names of its protocols.
  virtual bool conformsToProtocol(std::string_view protocolName) const = 0;
};

// A property-list value, used throughout the project: an immutable handle, cheap to copy, which
// threads may share. A collection is replaced as a whole, never changed in place.
//
// `Value()` is nil, the absence of a value; no collection and no file can contain it. The null
// marker is a value that stands for null in a collection.
class Value {
 public:
  enum class Type {
    kNil,
    kNullMarker,
    kBoolean,
    kInteger,
    kReal,
    kString,
    kData,
    kDate,
    kArray,
    kDictionary,
    kRemoteObject,
  };

  Value() = default;
  static Value nullMarker();

  template <std::same_as<bool> T>
  Value(T boolean) : storage_(boolean) {}
  // Integers are signed 64-bit. The caller must convert types that do not fit.
  template <std::integral T>
    requires(!std::same_as<T, bool> && !std::same_as<T, char> &&
             (std::is_signed_v<T> || sizeof(T) < sizeof(std::int64_t)))
  Value(T integer) : storage_(static_cast<std::int64_t>(integer)) {}
  Value(double real) : storage_(real) {}
  Value(std::string text) : storage_(std::make_shared<const std::string>(std::move(text))) {}
  Value(std::string_view text) : Value(std::string(text)) {}
  Value(const char* text) : Value(std::string(text)) {}
  Value(Data data) : storage_(std::make_shared<const Data>(std::move(data))) {}
  Value(Date date) : storage_(date) {}
  // Nil elements are stored as the null marker.
  Value(Array array);
  Value(Dictionary dictionary);
  // Nil for a null pointer. Shared, because a reference lives as long as any copy of the value.
  Value(std::shared_ptr<const RemoteObject> object);

  Type type() const { return static_cast<Type>(storage_.index()); }
  bool isNil() const { return type() == Type::kNil; }
  // Booleans, integers and reals are all numbers.
  bool isNumber() const;

  // The content if the value has exactly that type, else std::nullopt or null.
  std::optional<bool> boolean() const { return content<bool>(); }
  std::optional<std::int64_t> integer() const { return content<std::int64_t>(); }
  std::optional<double> real() const { return content<double>(); }
  std::optional<Date> date() const { return content<Date>(); }
  const std::string* string() const { return shared<std::string>(); }
  const Data* data() const { return shared<Data>(); }
  const Array* array() const { return shared<Array>(); }
  const Dictionary* dictionary() const { return shared<Dictionary>(); }
  std::shared_ptr<const RemoteObject> remoteObject() const;

  // The value of `key`; nil if this is not a dictionary or has no such key.
  const Value& operator[](std::string_view key) const;

  // Numbers are compared by exact value (true = 1 = 1.0), dictionaries in any order, remote objects
  // by identity. Values of different kinds are never equal.
  bool operator==(const Value& other) const;

 private:
  struct NullMarker {};
  // In the order of Type.
  using Storage =
      std::variant<std::monostate, NullMarker, bool, std::int64_t, double,
                   std::shared_ptr<const std::string>, std::shared_ptr<const Data>, Date,
                   std::shared_ptr<const Array>, std::shared_ptr<const Dictionary>,
                   std::shared_ptr<const RemoteObject>>;

  template <typename T>
  std::optional<T> content() const {
    const T* held = std::get_if<T>(&storage_);
    return held ? std::optional<T>(*held) : std::nullopt;
  }
  template <typename T>
  const T* shared() const {
    const auto* held = std::get_if<std::shared_ptr<const T>>(&storage_);
    return held ? held->get() : nullptr;
  }

  // Shared by all copies of the value.
  Storage storage_;
};

// The class of a value in log messages: "NSString", "NSNumber", "NSData", "NSDate", "NSArray",
// "NSDictionary", "NSNull", the class name of a remote object; empty for nil.
std::string_view className(const Value& value);

}  // namespace platform
