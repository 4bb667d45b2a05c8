#include "ServiceManager/Catalogue/SwitchComparison.h"

using namespace platform;

SwitchComparison compareSwitch(const Value& expected, const Value& current) {
  if (current.isNil()) return SwitchComparison::kAbsent;
  const bool isNumber = expected.isNumber();
  if (!isNumber && !expected.string()) return SwitchComparison::kDiffers;
  const bool isComparable = isNumber ? current.isNumber() : current.string() != nullptr;
  if (!isComparable) return SwitchComparison::kRaises;
  return expected == current ? SwitchComparison::kMatches : SwitchComparison::kDiffers;
}
