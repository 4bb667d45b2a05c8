#pragma once

#include <string>
#include <utility>
#include <variant>

namespace vantor {

enum class ErrorCode {
  kNotFound = 1,   // no such server, service or endpoint
  kDenied = 2,     // the other side, or the system, does not permit it
  kInvalid = 3,    // an argument that can't be used
  kExhausted = 4,  // a limit, no memory or no descriptors
  kTimedOut = 5,   // no answer in time
  kFailed = 6,     // anything else; the text says what
};

struct Error {
  ErrorCode code = ErrorCode::kFailed;
  std::string text;  // for a log or a person, in English, without a full stop
};

// The result of a function that can fail: a T, or an Error. The library throws nothing.
template <typename T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : content_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const { return content_.index() == 0; }
  // Only if there is one.
  T& operator*() { return *std::get_if<0>(&content_); }
  const T& operator*() const { return *std::get_if<0>(&content_); }
  T* operator->() { return std::get_if<0>(&content_); }
  const T* operator->() const { return std::get_if<0>(&content_); }
  // Only if there is no T.
  const Error& error() const { return *std::get_if<1>(&content_); }

 private:
  std::variant<T, Error> content_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)), failed_(true) {}

  explicit operator bool() const { return !failed_; }
  const Error& error() const { return error_; }

 private:
  Error error_;
  bool failed_ = false;
};

}  // namespace vantor
