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
#include "Platform/Linux/SystemCalls/Shortage.h"

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
    set->remarks.push_back(trusted.error().reason);
    settled_ = false;  // Without anchors no verdict is cached either.
    return set;
  }
  // The folders above are checked only now: checking them at every lookup would cost too much.
  facts_.push_back(std::move(folders.back()));
  bool sawAll = true;
  const auto names = namesInFolder(folder_, kMaxFiles);
  if (!names) set->remarks.push_back(describe(names.error()));
  if (names && names->size() > kMaxFiles) {
    set->remarks.push_back(fmt::format("{}: holds more than {} files", folder_, kMaxFiles));
  } else if (names) {
    for (const std::string& name : *names) {
      // Load every file, even if another one fails.
      sawAll = loadFile(folder_ + "/" + name, *set) && sawAll;
    }
  }
  settled_ = names && sawAll && std::ranges::none_of(facts_, [&](const FileFact& fact) {
               return changedRecently(fact.status, now);
             });
  return set;
}

bool AnchorStore::loadFile(const std::string& path, AnchorSet& set) {
  const auto remark = [&](std::string what) {
    set.remarks.push_back(std::move(what));
    return true;
  };
  const auto seen = fileStatus(path);
  if (!seen) return remark(seen.error().reason);
  facts_.push_back({path, FileFact::Covers::kContents, *seen});
  if (!S_ISREG(seen->st_mode)) return remark(path + ": is not a regular file");
  if (auto trusted = place_.checkFile(path, *seen); !trusted) {
    return remark(trusted.error().reason);
  }
  const auto file = openRegularFile(path);
  if (!file) return remark(describe(file.error())) && !isShortage(file.error().osError);
  if (!isSameState(*seen, file->status)) {
    return remark(path + ": was replaced while it was looked at");
  }
  const auto bytes = readToEnd(file->get(), kMaxFileBytes, path);
  if (!bytes) return remark(describe(bytes.error())) && !isShortage(bytes.error().osError);
  const std::span content(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size());
  if (const auto fault = addCertificates(content, set); !fault.empty()) {
    return remark(fmt::format("{}: {}", path, fault));
  }
  return true;
}

}  // namespace platform
