#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"

namespace platform {

// Code that exists only by what a test says of it. Not for several threads.
class FakeCodeSignatures final : public CodeSignatures {
 public:
  // Puts validly signed code at a path, in place of what was there.
  void addValid(const std::string& path, SecStaticCode::Kind kind,
                std::optional<std::string> identifier);

  // Puts code there that every check refuses.
  void addRefused(const std::string& path, SecStaticCode::Kind kind, CodeSigningFailure failure);

  void remove(const std::string& path);

  // How often the code at a path was checked.
  int checks(const std::string& path) const;

  CodeSigningResult<std::unique_ptr<SecStaticCode>> SecStaticCodeCreateWithPath(
      const std::string& path) override;

 private:
  friend class FakeStaticCode;

  struct Code {
    SecStaticCode::Kind kind;
    std::optional<std::string> identifier;
    std::optional<CodeSigningFailure> refusal;
  };

  std::map<std::string, Code> codes_;
  std::map<std::string, int> checks_;
};

}  // namespace platform
