#include "Tools/codeseal/Authority.h"

#include <cerrno>
#include <filesystem>
#include <span>
#include <system_error>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Certificates/CertificateMaker.h"
#include "Platform/Linux/Certificates/IdentityFiles.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Files/ReplacementFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace {

using namespace platform;

constexpr mode_t kSecret = 0600;
constexpr mode_t kPublic = 0644;
constexpr mode_t kSecretFolder = 0700;
constexpr std::size_t kMaxPemBytes = 256 * 1024;
constexpr std::chrono::minutes kClockDifference{5};  // between two machines of a developer

Result<void> writeFile(const std::string& path, const std::string& content, mode_t mode) {
  auto file = ReplacementFile::createFor(path);
  if (!file) return std::unexpected(file.error());
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
  if (auto done = file->append(bytes); !done) return done;
  if (auto done = file->setOwnerAndMode(::geteuid(), ::getegid(), mode); !done) return done;
  return file->commit();
}

Result<void> writeIdentity(const std::string& folder, const std::string& name,
                           const SigningIdentity& identity) {
  const auto key = pemOfKey(identity.key.get());
  if (!key) return std::unexpected(key.error());
  std::string certificates;
  for (const CertificateHandle& certificate : identity.chain) {
    const auto text = pemOfCertificate(certificate.get());
    if (!text) return std::unexpected(text.error());
    certificates += *text;
  }
  if (auto done = writeFile(folder + "/" + name + ".key", *key, kSecret); !done) return done;
  return writeFile(folder + "/" + name + ".pem", certificates, kPublic);
}

Result<SigningIdentity> makeIdentityOf(CertificateRequest request, const SigningIdentity* issuer) {
  auto key = makeEcKey("P-256");
  if (!key) return std::unexpected(key.error());
  return makeIdentity(request, *std::move(key), issuer);
}

}  // namespace

Result<void> makeAuthority(const AuthorityOptions& options) {
  if (::mkdir(options.folder.c_str(), kSecretFolder) != 0 && errno != EEXIST) {
    return std::unexpected(systemError(options.folder));
  }
  for (const char* name : {"authority.key", "authority.pem", "signer.key", "signer.pem"}) {
    const std::string path = options.folder + "/" + name;
    if (::access(path.c_str(), F_OK) == 0) {
      return std::unexpected(
          Error{ErrorCode::kInvalid, EEXIST, path + ": name another folder or remove it"});
    }
  }
  const auto from = options.now - kClockDifference;
  const auto to = options.now + options.validity;
  const auto authority =
      makeIdentityOf(authorityRequest(options.name + " authority", from, to), nullptr);
  if (!authority) return std::unexpected(authority.error());
  CertificateRequest request;
  request.commonName = options.name + " signer";
  request.notBefore = from;
  request.notAfter = to;
  const auto signer = makeIdentityOf(std::move(request), &*authority);
  if (!signer) return std::unexpected(signer.error());
  if (auto done = writeIdentity(options.folder, "authority", *authority); !done) return done;
  return writeIdentity(options.folder, "signer", *signer);
}

Result<std::string> installAnchor(const std::string& folder, const std::string& root) {
  const std::string source = folder + "/authority.pem";
  const auto file = openRegularFile(source);
  if (!file) return std::unexpected(file.error());
  const auto content = readToEnd(file->get(), kMaxPemBytes, source);
  if (!content) return std::unexpected(content.error());
  // The caller's umask must not matter: a file that others can write is not trusted.
  const mode_t umaskBefore = ::umask(S_IWGRP | S_IWOTH);
  const std::string anchors = root + "/etc/vantor/anchors";
  std::error_code error;
  std::filesystem::create_directories(anchors, error);
  ::umask(umaskBefore);
  if (error) return std::unexpected(Error{ErrorCode::kSystem, error.value(), anchors});
  const std::string target = anchors + "/development-authority.pem";
  if (auto done = writeFile(target, *content, kPublic); !done) {
    return std::unexpected(done.error());
  }
  return target;
}
