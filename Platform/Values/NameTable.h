#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace platform {

// What the platform's runtime looks up by name (a class to make, a protocol, a selector to call)
// stands in tables that `main` fills. Not changed after that, so any thread may look things up.
template <typename Entry>
class NameTable {
 public:
  // False, and nothing is changed, when the name is empty or taken.
  bool add(std::string_view name, Entry entry) {
    if (name.empty()) return false;
    return entries_.try_emplace(std::string(name), std::move(entry)).second;
  }

  // Null when nothing has that name, which is compared exactly. Valid as long as the table.
  const Entry* find(std::string_view name) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? nullptr : &found->second;
  }

 private:
  std::map<std::string, Entry, std::less<>> entries_;
};

// Dynamically called selectors, by their whole name with every colon, all of one C++ signature.
template <typename Signature>
using SelectorTable = NameTable<std::function<Signature>>;

}  // namespace platform
