#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"

#include <cerrno>
#include <utility>

namespace platform {

class FakeStaticCode final : public SecStaticCode {
 public:
  FakeStaticCode(FakeCodeSignatures& signatures, std::string name, std::string path, Kind kind)
      : signatures_(signatures), name_(std::move(name)), path_(std::move(path)), kind_(kind) {}

  Kind kind() const override { return kind_; }

  CodeSigningResult<void> SecStaticCodeCheckValidityWithErrors(std::uint32_t flags,
                                                               const SecRequirement&) override {
    ++signatures_.checks_[path_];
    verified_ = std::nullopt;
    const auto code = signatures_.codes_.find(path_);
    if (code == signatures_.codes_.end()) return std::unexpected(gone());
    if (signatures_.isShort_) {
      return refuse(kErrnoStatusBase + EMFILE, path_ + ": Too many open files");
    }
    if ((flags & kSecCSCheckTrustedPlace) != 0) {
      if (name_ != path_) return refuse(kErrnoStatusBase + ELOOP, name_ + ": is a symbolic link");
      if (code->second.isElsewhere) {
        return refuse(kErrnoStatusBase + EPERM, path_ + ": can be written by others");
      }
    }
    if (code->second.refusal) return std::unexpected(*code->second.refusal);
    verified_ = code->second.file;
    return {};
  }

  std::optional<VerifiedFile> verifiedFile() const override { return verified_; }

  CodeSigningResult<Dictionary> SecCodeCopySigningInformation(std::uint32_t flags) override {
    const auto code = signatures_.codes_.find(path_);
    if (code == signatures_.codes_.end()) return std::unexpected(gone());
    if (code->second.refusal && code->second.refusal->status == errSecCSUnsigned) {
      return std::unexpected(*code->second.refusal);
    }
    Dictionary information;
    if (code->second.identifier) information.set(kSecCodeInfoIdentifier, *code->second.identifier);
    if ((flags & kSecCSSigningInformation) != 0) {
      information.set(kSecCodeInfoCertificates, Array{Data{0x30, 0x00}});
    }
    return information;
  }

 private:
  CodeSigningFailure gone() const {
    return {kErrnoStatusBase + ENOENT, path_ + ": No such file or directory"};
  }

  FakeCodeSignatures& signatures_;
  const std::string name_;  // as the caller named it
  const std::string path_;
  const Kind kind_;
  std::optional<VerifiedFile> verified_;
};

void FakeCodeSignatures::addValid(const std::string& path, SecStaticCode::Kind kind,
                                  std::optional<std::string> identifier) {
  codes_[path] = Code{kind, std::move(identifier), std::nullopt};
}

void FakeCodeSignatures::addRefused(const std::string& path, SecStaticCode::Kind kind,
                                    CodeSigningFailure failure) {
  codes_[path] = Code{kind, std::nullopt, std::move(failure)};
}

void FakeCodeSignatures::remove(const std::string& path) { codes_.erase(path); }

int FakeCodeSignatures::checks(const std::string& path) const {
  const auto found = checks_.find(path);
  return found == checks_.end() ? 0 : found->second;
}

CodeSigningResult<std::unique_ptr<SecStaticCode>> FakeCodeSignatures::SecStaticCodeCreateWithPath(
    const std::string& path) {
  const auto link = links_.find(path);
  const std::string& target = link == links_.end() ? path : link->second;
  const auto code = codes_.find(target);
  if (code == codes_.end()) {
    return refuse(kErrnoStatusBase + ENOENT, path + ": No such file or directory");
  }
  return std::make_unique<FakeStaticCode>(*this, path, target, code->second.kind);
}

}  // namespace platform
