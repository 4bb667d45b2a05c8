#include "Kit/SettingsServer/SettingConversions.h"

#include <limits>
#include <string>

#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/Texts/Description.h"
#include "Platform/Texts/IntegerValue.h"
#include "Shared/Categories/NSStringExtensions.h"

using platform::Value;

namespace {

std::int64_t truncated(double real) {
  constexpr double kTooLarge = 0x1p63;
  if (real >= kTooLarge) return std::numeric_limits<std::int64_t>::max();
  if (real < -kTooLarge) return std::numeric_limits<std::int64_t>::min();
  return real == real ? static_cast<std::int64_t>(real) : 0;  // NaN is no number
}

}  // namespace

Value settingAsString(const Value& setting) {
  if (setting.string()) return setting;
  return setting.isNumber() ? Value(platform::description(setting)) : Value();
}

std::int64_t settingAsInteger(const Value& setting) {
  if (const auto boolean = setting.boolean()) return *boolean ? 1 : 0;
  if (const auto integer = setting.integer()) return *integer;
  if (const auto real = setting.real()) return truncated(*real);
  return setting.string() ? platform::integerValue(*setting.string()) : 0;
}

double settingAsDouble(const Value& setting) {
  if (const auto real = setting.real()) return *real;
  if (const std::string* text = setting.string()) return platform::realFromText(*text).value_or(0);
  return static_cast<double>(settingAsInteger(setting));
}

bool settingAsBool(const Value& setting) {
  if (const std::string* text = setting.string()) return NSStringExtensions::boolValueFor(*text);
  return settingAsDouble(setting) != 0;
}
