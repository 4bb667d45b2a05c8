#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace platform {

// A table of the objects that the platform's runtime looks up by name: classes, protocols,
// selectors. `main` fills it. It is not changed afterwards, so any thread may look names up.
template <typename Entry>
class NameTable {
 public:
  // False, without a change, if the name is empty or taken.
  bool add(std::string_view name, Entry entry) {
    if (name.empty()) return false;
    return entries_.try_emplace(std::string(name), std::move(entry)).second;
  }

  // Null if nothing has exactly this name. Valid as long as the table.
  const Entry* find(std::string_view name) const {
    const auto found = entries_.find(name);
    return found == entries_.end() ? nullptr : &found->second;
  }

 private:
  std::map<std::string, Entry, std::less<>> entries_;
};

// Dynamically called selectors by their full name with all colons, of one C++ signature.
template <typename Signature>
using SelectorTable = NameTable<std::function<Signature>>;

}  // namespace platform
