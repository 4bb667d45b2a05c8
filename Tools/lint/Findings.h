#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Texts/QuotedText.h"
#include "Tools/lint/FindingCodes.h"
#include "Tools/lint/Node.h"

namespace lint {

struct Finding {
  std::string file;
  std::optional<platform::TextPosition> position;  // nothing in a binary list
  std::string path;  // of the value, by keys; empty for the whole file
  const FindingCode* code = nullptr;
  std::string message;  // a sentence without the full stop at its end
};

// Further findings of a file are left out.
inline constexpr std::size_t kMostFindings = 1000;

// The findings of one file.
class Findings {
 public:
  explicit Findings(std::string file) : file_(std::move(file)) {}

  // About a value, or about its key in the dictionary that it stands in.
  void atValue(const Node& node, std::string_view code, std::string message);
  void atKey(const Node& node, std::string_view code, std::string message);
  // About the file, or about a place in it that has no value.
  void add(std::optional<platform::TextPosition> position, std::string path, std::string_view code,
           std::string message);

  // Whether the next finding is left out.
  bool areFull() const { return findings_.size() >= kMostFindings; }

  // Ordered by their places.
  std::vector<Finding> take();

 private:
  std::string file_;
  std::vector<Finding> findings_;
  bool areTooMany_ = false;
};

}  // namespace lint
