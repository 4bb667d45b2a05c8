#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"

namespace platform {

// Code that exists only in the test's description. Only one thread may use it.
class FakeCodeSignatures final : public CodeSignatures {
 public:
  // Replaces the code at a path by validly signed code.
  void addValid(const std::string& path, SecStaticCode::Kind kind,
                std::optional<std::string> identifier);

  // Puts code at a path that every check refuses.
  void addRefused(const std::string& path, SecStaticCode::Kind kind, CodeSigningFailure failure);

  // Puts a symbolic link at a path.
  void addLink(const std::string& path, const std::string& target) { links_[path] = target; }

  // The code at a path is in a place where other users can change it.
  void setElsewhere(const std::string& path) { codes_.at(path).isElsewhere = true; }

  // The file of the valid program at a path, which checks then tell of.
  void setFile(const std::string& path, const VerifiedFile& file) { codes_.at(path).file = file; }

  // The protection of every file at which there is code; kRecheck unless this says more.
  void setProtection(CodeProtection protection) { protection_ = protection; }

  void remove(const std::string& path);

  // During a shortage of descriptors nothing can be checked.
  void setShortage(bool isShort) { isShort_ = isShort; }

  // The number of checks of the code at a path.
  int checks(const std::string& path) const;

  CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) override;

  std::optional<CodeProtection> protectionOf(const std::string& path) override {
    return codes_.contains(path) ? std::optional(protection_) : std::nullopt;
  }

 private:
  friend class FakeStaticCode;

  struct Code {
    SecStaticCode::Kind kind;
    std::optional<std::string> identifier;
    std::optional<CodeSigningFailure> refusal;
    bool isElsewhere = false;
    std::optional<VerifiedFile> file = {};
  };

  std::map<std::string, Code> codes_;
  std::map<std::string, std::string> links_;
  std::map<std::string, int> checks_;
  bool isShort_ = false;
  CodeProtection protection_ = CodeProtection::kRecheck;
};

}  // namespace platform
