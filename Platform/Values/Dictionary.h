#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform {

class Value;

// A dictionary with string keys. The order of insertion is kept, also by copies, files and
// messages. A plain value: copying it copies the entries (each a cheap handle). Put it into a Value
// to share it.
class Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dictionary();
  Dictionary(std::initializer_list<Entry> entries);
  Dictionary(const Dictionary&);
  Dictionary(Dictionary&&) noexcept;
  Dictionary& operator=(const Dictionary&);
  Dictionary& operator=(Dictionary&&) noexcept;
  ~Dictionary();

  bool empty() const;
  std::size_t size() const;
  const_iterator begin() const;
  const_iterator end() const;

  bool contains(std::string_view key) const;

  // The value of `key`, nil if there is none.
  const Value& operator[](std::string_view key) const;

  // A new key is added at the end; an existing key keeps its position. Nil is stored as the null
  // marker.
  void set(std::string_view key, Value value);

  // Returns whether there was such a key.
  bool remove(std::string_view key);

  // The same keys with equal values, in any order.
  bool operator==(const Dictionary& other) const;

 private:
  static constexpr std::uint32_t kFree = UINT32_MAX;

  std::size_t find(std::string_view key) const;  // size() if there is none
  void index(std::uint32_t position);
  void rebuildIndex();

  std::vector<Entry> entries_;
  // Open addressing over positions in `entries_`; empty while there are so few entries that a scan
  // is faster.
  std::vector<std::uint32_t> slots_;
};

}  // namespace platform
