#include "Tools/lint/Node.h"

#include <cstddef>

namespace lint {
namespace {

using platform::Value;

Node child(const Node& parent, std::size_t number, std::string name, const Value& value) {
  const bool hasPlace = parent.place && number < parent.place->children.size();
  return {.value = value,
          .place = hasPlace ? &parent.place->children[number] : nullptr,
          .path = parent.path.empty() ? name : parent.path + "/" + name,
          .name = name,
          .isOfDictionary = parent.value.dictionary() != nullptr};
}

}  // namespace

std::vector<Node> childrenOf(const Node& node) {
  std::vector<Node> children;
  std::size_t number = 0;
  if (const platform::Dictionary* entries = node.value.dictionary()) {
    for (const auto& [key, value] : *entries) {
      children.push_back(child(node, number, key, value));
      ++number;
    }
  } else if (const platform::Array* elements = node.value.array()) {
    for (const Value& element : *elements) {
      children.push_back(child(node, number, std::to_string(number), element));
      ++number;
    }
  }
  return children;
}

Node childOf(const Node& node, std::string_view key) {
  std::size_t number = 0;
  if (const platform::Dictionary* entries = node.value.dictionary()) {
    for (const auto& [name, value] : *entries) {
      if (name == key) return child(node, number, name, value);
      ++number;
    }
  }
  Node none = node;
  none.value = Value();
  return none;
}

}  // namespace lint
