#include "Platform/Linux/CodeSigning/AnchorStore.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"

namespace platform {
namespace {

constexpr std::string_view kTooMany = "holds one certificate too many";
constexpr std::string_view kTooManyLists = "holds one list of revoked certificates too many";

bool isFull(const AnchorSet& set) {
  return sk_X509_num(set.certificates.get()) >= AnchorStore::kMaxCertificates;
}

// The caller has checked that there is room.
void addCertificate(CertificateHandle certificate, AnchorSet& set) {
  // Computes the certificate's cached fields while only one thread has it; later calls only read.
  X509_check_purpose(certificate.get(), -1, 0);
  X509_STORE_add_cert(set.store.get(), certificate.get());  // It takes a reference of its own.
  if (sk_X509_push(set.certificates.get(), certificate.get()) > 0) (void)certificate.release();
}

// Adds the certificates and lists of a PEM file. Returns what is wrong with it, or an empty text.
std::string_view addPem(std::span<const std::uint8_t> bytes, AnchorSet& set) {
  int count = 0;
  const auto size = static_cast<int>(bytes.size());
  const BioHandle certificates(BIO_new_mem_buf(bytes.data(), size));
  while (certificates) {
    CertificateHandle pem(PEM_read_bio_X509(certificates.get(), nullptr, nullptr, nullptr));
    if (!pem) break;
    if (isFull(set)) return kTooMany;
    addCertificate(std::move(pem), set);
    ++count;
  }
  const BioHandle lists(BIO_new_mem_buf(bytes.data(), size));
  while (lists) {
    RevocationList pem(PEM_read_bio_X509_CRL(lists.get(), nullptr, nullptr, nullptr));
    if (!pem) break;
    if (set.revocations.lists.size() >= AnchorStore::kMaxLists) return kTooManyLists;
    set.revocations.lists.push_back(std::move(pem));
    ++count;
  }
  return count > 0 ? std::string_view() : "holds no certificate";
}

// Adds what a file's bytes hold. Returns what is wrong with them, or an empty text.
std::string_view addFile(std::span<const std::uint8_t> bytes, AnchorSet& set) {
  const unsigned char* next = bytes.data();
  if (CertificateHandle der{d2i_X509(nullptr, &next, static_cast<long>(bytes.size()))}) {
    if (isFull(set)) return kTooMany;
    addCertificate(std::move(der), set);
    return {};
  }
  next = bytes.data();
  if (RevocationList der{d2i_X509_CRL(nullptr, &next, static_cast<long>(bytes.size()))}) {
    if (set.revocations.lists.size() >= AnchorStore::kMaxLists) return kTooManyLists;
    set.revocations.lists.push_back(std::move(der));
    return {};
  }
  const std::string_view fault = addPem(bytes, set);
  takeOpenSslError();
  return fault;
}

void remark(AnchorSet& set, const CodeSigningFailure& failure) {
  set.remarks.push_back(failure.reason);
  if (!set.unread && verdictOf(failure) == CodeVerdict::kUnknown) set.unread = failure;
}

}  // namespace

AnchorStore::AnchorStore(std::string folder, std::string revokedFolder, TrustedPlace place)
    : folder_(std::move(folder)), revokedFolder_(std::move(revokedFolder)), place_(place) {}

std::shared_ptr<const AnchorSet> AnchorStore::current(WallTime now) {
  const std::scoped_lock lock(mutex_);
  const bool unchanged = set_ && settled_ && std::ranges::all_of(facts_, &FileFact::stillHolds);
  if (!unchanged) set_ = load(now);
  return set_;
}

std::shared_ptr<const AnchorSet> AnchorStore::load(WallTime now) {
  facts_.clear();
  const auto set = std::make_shared<AnchorSet>();
  set->generation = ++generation_;
  set->store.reset(X509_STORE_new());
  set->certificates.reset(sk_X509_new_null());
  FileFacts folders;
  if (auto trusted = place_.check(folder_, folders); !trusted) {
    remark(*set, trusted.error());
    settled_ = false;  // Without anchors no verdict is cached either.
    return set;
  }
  // The folders above are checked only now: checking them at every lookup would cost too much.
  facts_.push_back(std::move(folders.back()));
  const auto names = namesInFolder(folder_, kMaxFiles);
  if (!names) remark(*set, failureOfOpening(folder_, names.error()));
  if (names && names->size() > kMaxFiles) {
    set->remarks.push_back(fmt::format("{}: holds more than {} files", folder_, kMaxFiles));
  } else if (names) {
    // Load every file, even if another one fails.
    for (const std::string& name : *names) loadFile(folder_ + "/" + name, *set);
  }
  loadRevoked(*set);
  settled_ = names && !set->unread && std::ranges::none_of(facts_, [&](const FileFact& fact) {
               return changedRecently(fact.status, now);
             });
  return set;
}

// The bytes of a file in a folder that is trusted.
CodeSigningResult<std::string> AnchorStore::readFile(const std::string& path) {
  const auto found = findFile(path, FinalLink::kRefuse);
  if (!found) return std::unexpected(failureOfOpening(path, found.error()));
  facts_.push_back({path, FileFact::Covers::kContents, found->status});
  if (!S_ISREG(found->status.st_mode)) {
    return refuse(errSecCSBadObjectFormat, path + ": is not a regular file");
  }
  if (auto trusted = place_.checkFile(path, found->status); !trusted) {
    return std::unexpected(trusted.error());
  }
  const auto file = openFoundFile(*found, path);
  if (!file) return std::unexpected(failureOfOpening(path, file.error()));
  auto bytes = readToEnd(file->get(), kMaxFileBytes, path);
  if (!bytes) return std::unexpected(failureOfOpening(path, bytes.error()));
  return *std::move(bytes);
}

void AnchorStore::loadFile(const std::string& path, AnchorSet& set) {
  const auto bytes = readFile(path);
  if (!bytes) return remark(set, bytes.error());
  const std::span content(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size());
  if (const auto fault = addFile(content, set); !fault.empty()) {
    set.remarks.push_back(fmt::format("{}: {}", path, fault));
  }
}

// A revocation that is not understood must not be ignored. It must not stop what runs either.
void AnchorStore::loadRevoked(AnchorSet& set) {
  const auto unknown = [&](const std::string& reason) {
    if (!set.unread) set.unread = CodeSigningFailure{kErrnoStatusBase + EBADMSG, reason};
  };
  const auto names = namesInFolder(revokedFolder_, kMaxFiles);
  if (!names && names.error().osError == ENOENT) {
    // A change of the folder above shows that the folder has been made.
    const std::string above = revokedFolder_.substr(0, revokedFolder_.rfind('/'));
    if (const auto status = fileStatus(above)) {
      facts_.push_back({above, FileFact::Covers::kContents, *status});
    }
    return;
  }
  FileFacts folders;
  if (auto trusted = place_.check(revokedFolder_, folders); !trusted) {
    return unknown(trusted.error().reason);
  }
  facts_.push_back(std::move(folders.back()));
  if (!names) return unknown(describe(names.error()));
  if (names->size() > kMaxFiles) {
    return unknown(fmt::format("{}: holds more than {} files", revokedFolder_, kMaxFiles));
  }
  for (const std::string& name : *names) {
    if (auto loaded = loadRevokedFile(revokedFolder_ + "/" + name, set); !loaded) {
      unknown(loaded.error().reason);
    }
  }
}

CodeSigningResult<void> AnchorStore::loadRevokedFile(const std::string& path, AnchorSet& set) {
  const auto text = readFile(path);
  if (!text) return std::unexpected(text.error());
  const auto added = addRevoked(*text, set.revocations);
  if (added) return {};
  return refuse(errSecCSBadObjectFormat,
                fmt::format("{}: line {} is no SHA-256 of a certificate", path, added.error()));
}

}  // namespace platform
