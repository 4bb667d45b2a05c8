#include "Platform/Values/Dictionary.h"

#include <algorithm>
#include <bit>
#include <random>

#include "Platform/Values/Value.h"

namespace platform {
namespace {

// Below this many entries a scan is faster than hashing.
constexpr std::size_t kScanLimit = 8;

const Value kNilValue;

// Keys come from files and peers. With a predictable hash they could make every lookup a long
// probe.
std::size_t hashOf(std::string_view key) {
  static const std::uint64_t secret = [] {
    std::random_device device;
    // Odd, so that the product below loses no bit.
    return std::uint64_t{device()} << 32U | device() | 1U;
  }();
  std::uint64_t hash = secret;
  for (const char character : key) {
    hash = (hash ^ static_cast<unsigned char>(character)) * secret;
    // Only the low bits are used, and those of a product depend on low bits only.
    hash ^= hash >> 32U;
  }
  return static_cast<std::size_t>(hash);
}

}  // namespace

Dictionary::Dictionary() = default;
Dictionary::Dictionary(const Dictionary&) = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(const Dictionary&) = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  for (const Entry& entry : entries) set(entry.first, entry.second);
}

bool Dictionary::empty() const { return entries_.empty(); }
std::size_t Dictionary::size() const { return entries_.size(); }
Dictionary::const_iterator Dictionary::begin() const { return entries_.begin(); }
Dictionary::const_iterator Dictionary::end() const { return entries_.end(); }

bool Dictionary::contains(std::string_view key) const { return find(key) != entries_.size(); }

const Value& Dictionary::operator[](std::string_view key) const {
  const std::size_t position = find(key);
  return position == entries_.size() ? kNilValue : entries_[position].second;
}

void Dictionary::set(std::string_view key, Value value) {
  if (value.isNil()) value = Value::nullMarker();
  const std::size_t position = find(key);
  if (position != entries_.size()) {
    entries_[position].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::string(key), std::move(value));
  // The table is at most half full, so that a probe for an absent key ends soon.
  if (entries_.size() > kScanLimit && entries_.size() * 2 > slots_.size()) {
    rebuildIndex();
  } else if (!slots_.empty()) {
    index(static_cast<std::uint32_t>(position));
  }
}

bool Dictionary::remove(std::string_view key) {
  const std::size_t position = find(key);
  if (position == entries_.size()) return false;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(position));
  rebuildIndex();
  return true;
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (size() != other.size()) return false;
  return std::ranges::all_of(entries_, [&other](const Entry& entry) {
    const std::size_t position = other.find(entry.first);
    return position != other.size() && other.entries_[position].second == entry.second;
  });
}

std::size_t Dictionary::find(std::string_view key) const {
  if (slots_.empty()) {
    const auto found = std::ranges::find(entries_, key, &Entry::first);
    return static_cast<std::size_t>(found - entries_.begin());
  }
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t slot = hashOf(key) & mask;; slot = (slot + 1) & mask) {
    if (slots_[slot] == kFree) return entries_.size();
    if (entries_[slots_[slot]].first == key) return slots_[slot];
  }
}

void Dictionary::index(std::uint32_t position) {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = hashOf(entries_[position].first) & mask;
  while (slots_[slot] != kFree) slot = (slot + 1) & mask;
  slots_[slot] = position;
}

void Dictionary::rebuildIndex() {
  slots_.clear();
  if (entries_.size() <= kScanLimit) return;
  slots_.assign(std::bit_ceil(entries_.size() * 4), kFree);
  for (std::uint32_t position = 0; position < entries_.size(); ++position) index(position);
}

}  // namespace platform
