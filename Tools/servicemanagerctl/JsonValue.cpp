#include "Tools/servicemanagerctl/JsonValue.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/Texts/QuotedText.h"

namespace {

using namespace platform;
using JsonParser = nlohmann::json;

// Builds the value from the events of the parser, which stores no tree.
class JsonReading final : public nlohmann::json_sax<JsonParser> {
 public:
  bool null() override { return add(Value::nullMarker()); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(std::int64_t value) override { return add(value); }
  bool number_unsigned(std::uint64_t value) override {
    if (value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return fail(fmt::format("{} is above the largest integer", value));
    }
    return add(static_cast<std::int64_t>(value));
  }
  bool number_float(double value, const std::string&) override { return add(value); }
  bool string(std::string& value) override { return add(Value(std::move(value))); }
  bool binary(JsonParser::binary_t&) override { return fail("there is no binary data in JSON"); }

  bool start_object(std::size_t) override { return open(true); }
  bool start_array(std::size_t) override { return open(false); }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool key(std::string& name) override {
    if (open_.back().entries.contains(name)) {
      return fail(fmt::format("the key {} occurs twice", quotedInMessage(name)));
    }
    open_.back().key = std::move(name);
    return true;
  }

  bool parse_error(std::size_t position, const std::string&,
                   const JsonParser::exception&) override {
    offset_ = position > 0 ? position - 1 : 0;
    return fail("this is no JSON");
  }

  Value takeValue() { return std::move(root_); }
  const std::string& fault() const { return fault_; }
  // Where the text is no JSON; nothing for another fault.
  std::optional<std::size_t> offset() const { return offset_; }

 private:
  struct Collection {
    bool isObject = false;
    Array elements = {};
    Dictionary entries = {};
    std::string key = {};
  };

  bool fail(std::string why) {
    if (fault_.empty()) fault_ = std::move(why);
    return false;
  }

  bool open(bool isObject) {
    if (open_.size() == kMaxPropertyListDepth) {
      return fail(
          fmt::format("more than {} collections inside one another", kMaxPropertyListDepth));
    }
    open_.push_back({.isObject = isObject});
    return true;
  }

  bool close() {
    Collection collection = std::move(open_.back());
    open_.pop_back();
    return add(collection.isObject ? Value(std::move(collection.entries))
                                   : Value(std::move(collection.elements)));
  }

  bool add(Value value) {
    if (++nodes_ > kMaxPropertyListNodes) {
      return fail(fmt::format("more than {} values", kMaxPropertyListNodes));
    }
    if (open_.empty()) {
      root_ = std::move(value);
    } else if (open_.back().isObject) {
      open_.back().entries.set(open_.back().key, std::move(value));
    } else {
      open_.back().elements.push_back(std::move(value));
    }
    return true;
  }

  std::vector<Collection> open_;
  Value root_;
  std::size_t nodes_ = 0;
  std::string fault_;
  std::optional<std::size_t> offset_;
};

std::string lossAt(const Value& value, const std::string& path) {
  const auto below = [&](const std::string& key) { return path.empty() ? key : path + "/" + key; };
  const std::string where = path.empty() ? "the value" : path;
  if (value.data()) return where + " is data";
  if (value.date()) return where + " is a date";
  if (value.real() && !std::isfinite(*value.real())) return where + " is no finite number";
  if (const Array* elements = value.array()) {
    for (std::size_t i = 0; i < elements->size(); ++i) {
      if (std::string loss = lossAt((*elements)[i], below(std::to_string(i))); !loss.empty())
        return loss;
    }
  }
  if (const Dictionary* entries = value.dictionary()) {
    for (const auto& [key, element] : *entries) {
      if (std::string loss = lossAt(element, below(key)); !loss.empty()) return loss;
    }
  }
  return "";
}

}  // namespace

Result<Value> valueOfJson(std::string_view text, std::string_view name) {
  if (text.size() > kMaxPropertyListBytes) {
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0,
              fmt::format("{}: more than {} bytes", name, kMaxPropertyListBytes)});
  }
  JsonReading reading;
  if (JsonParser::sax_parse(text, &reading)) return reading.takeValue();
  if (reading.offset()) {
    return std::unexpected(errorInText(text, *reading.offset(), name, reading.fault()));
  }
  return std::unexpected(
      Error{ErrorCode::kInvalid, 0, fmt::format("{}: {}", name, reading.fault())});
}

std::string lossInJson(const Value& value) { return lossAt(value, ""); }
