#include "Tools/servicemanagerctl/LintMachine.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include <sys/stat.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Files/PropertyListFile.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"

namespace {

using namespace platform;

// The platform root, whether its configuration can be read or not.
Result<std::string> rootToCheck(const std::string& given) {
  if (!given.empty()) return platformRootAt(given);
  const auto program = runningExecutablePath();
  if (!program) return std::unexpected(program.error());
  return platformRootOfExecutable(*program);
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == path.npos ? "/" : path.substr(0, slash);
}

bool pathExists(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0;
}

// The state of the file alone, without its signature.
lint::ProgramState stateOfFile(const std::string& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0) {
    const int error = errno;
    if (error != ENOENT && error != ENOTDIR) {
      return {lint::ProgramState::Kind::kUnchecked, std::generic_category().message(error)};
    }
    return {pathExists(folderOf(path)) ? lint::ProgramState::Kind::kMissing
                                       : lint::ProgramState::Kind::kNotHere};
  }
  const bool isExecutable =
      S_ISREG(status.st_mode) && (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
  return {isExecutable ? lint::ProgramState::Kind::kSound : lint::ProgramState::Kind::kNoProgram};
}

class Signatures {
 public:
  explicit Signatures(const std::string& root) : root_(rootToCheck(root)) {}

  lint::ProgramState check(const std::string& path) {
    const auto signatures = open();
    if (!signatures) return {lint::ProgramState::Kind::kUnchecked, describe(signatures.error())};
    const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                               &std::free);
    const auto code = (*signatures)->SecStaticCodeCreateWithPath(resolved ? resolved.get() : path);
    if (!code) return stateOf(code.error());
    const auto valid = checkCodeThatRuns(**code);
    return valid ? lint::ProgramState{} : stateOf(valid.error());
  }

 private:
  Result<LinuxCodeSignatures*> open() {
    if (!root_) return std::unexpected(root_.error());
    if (!signatures_) {
      auto loop = AsioRunLoop::create();
      if (!loop) return std::unexpected(loop.error());
      loop_ = *std::move(loop);
      auto made = LinuxCodeSignatures::create(*root_, [this] { return loop_->wallTime(); });
      if (!made) return std::unexpected(made.error());
      signatures_ = *std::move(made);
    }
    return signatures_.get();
  }

  static lint::ProgramState stateOf(const CodeSigningFailure& failure) {
    switch (verdictOf(failure)) {
      case CodeVerdict::kIntact:
        return {};
      case CodeVerdict::kNotSigned:
        return {lint::ProgramState::Kind::kUnsigned, failure.reason};
      case CodeVerdict::kDamaged:
        return {lint::ProgramState::Kind::kRefused, failure.reason};
      case CodeVerdict::kUnknown:
        break;
    }
    return {lint::ProgramState::Kind::kUnchecked, failure.reason};
  }

  Result<std::string> root_;
  std::unique_ptr<AsioRunLoop> loop_;  // for the time alone
  std::unique_ptr<LinuxCodeSignatures> signatures_;
};

}  // namespace

lint::Machine makeLintMachine(const std::string& root) {
  const auto signatures = std::make_shared<Signatures>(root);
  return {.program =
              [signatures](const std::string& path, bool mustBeSigned) {
                lint::ProgramState state = stateOfFile(path);
                if (state.kind != lint::ProgramState::Kind::kSound || !mustBeSigned) return state;
                return signatures->check(path);
              },
          .propertyList = [](const std::string& path) -> std::optional<Result<Value>> {
            if (!pathExists(folderOf(path))) return std::nullopt;
            return readPropertyListFile(path);
          }};
}
