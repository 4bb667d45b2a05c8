#include "Platform/Linux/CodeSigning/AnchorStore.h"

#include <algorithm>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "Platform/Linux/Files/FolderNames.h"
#include "Platform/Linux/Files/RegularFile.h"

namespace platform {
namespace {

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

// Adds the certificates in a file's bytes. Returns what is wrong with them, or an empty text.
std::string_view addCertificates(std::span<const std::uint8_t> bytes, AnchorSet& set) {
  constexpr std::string_view kTooMany = "holds one certificate too many";
  int count = 0;
  const unsigned char* next = bytes.data();
  CertificateHandle der(d2i_X509(nullptr, &next, static_cast<long>(bytes.size())));
  if (der) {
    if (isFull(set)) return kTooMany;
    addCertificate(std::move(der), set);
    ++count;
  } else {
    const BioHandle bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    while (bio) {
      CertificateHandle pem(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
      if (!pem) break;
      if (isFull(set)) return kTooMany;
      addCertificate(std::move(pem), set);
      ++count;
    }
  }
  takeOpenSslError();
  return count > 0 ? std::string_view() : "holds no certificate";
}

void remark(AnchorSet& set, const CodeSigningFailure& failure) {
  set.remarks.push_back(failure.reason);
  if (!set.unread && verdictOf(failure) == CodeVerdict::kUnknown) set.unread = failure;
}

}  // namespace

AnchorStore::AnchorStore(std::string folder, TrustedPlace place)
    : folder_(std::move(folder)), place_(place) {}

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
  settled_ = names && !set->unread && std::ranges::none_of(facts_, [&](const FileFact& fact) {
               return changedRecently(fact.status, now);
             });
  return set;
}

void AnchorStore::loadFile(const std::string& path, AnchorSet& set) {
  const auto found = findFile(path, FinalLink::kRefuse);
  if (!found) return remark(set, failureOfOpening(path, found.error()));
  facts_.push_back({path, FileFact::Covers::kContents, found->status});
  if (!S_ISREG(found->status.st_mode)) {
    set.remarks.push_back(path + ": is not a regular file");
    return;
  }
  if (auto trusted = place_.checkFile(path, found->status); !trusted) {
    return remark(set, trusted.error());
  }
  const auto file = openFoundFile(*found, path);
  if (!file) return remark(set, failureOfOpening(path, file.error()));
  const auto bytes = readToEnd(file->get(), kMaxFileBytes, path);
  if (!bytes) return remark(set, failureOfOpening(path, bytes.error()));
  const std::span content(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size());
  if (const auto fault = addCertificates(content, set); !fault.empty()) {
    set.remarks.push_back(fmt::format("{}: {}", path, fault));
  }
}

}  // namespace platform
