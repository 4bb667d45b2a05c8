#include "Platform/Linux/Certificates/IdentityFiles.h"

#include <cstddef>
#include <utility>

#include <openssl/pem.h>

#include "Platform/Linux/Files/RegularFile.h"

namespace platform {
namespace {

constexpr std::size_t kMaxPemBytes = 256 * 1024;

std::string contentOfBio(BIO* bio) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio, &text);
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

Result<std::string> readPem(const std::string& path) {
  const auto file = openRegularFile(path);
  if (!file) return std::unexpected(file.error());
  return readToEnd(file->get(), kMaxPemBytes, path);
}

BioHandle readerOf(const std::string& bytes) {
  return BioHandle(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

// An encrypted key is refused. Without this callback OpenSSL would prompt on the terminal.
int noPassword(char*, int, int, void*) { return -1; }

}  // namespace

Result<std::string> pemOfCertificate(X509* certificate) {
  const BioHandle bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_X509(bio.get(), certificate) != 1) {
    return openSslFailure("writing a certificate", ErrorCode::kInvalid);
  }
  return contentOfBio(bio.get());
}

Result<std::string> pemOfKey(EVP_PKEY* key) {
  const BioHandle bio(BIO_new(BIO_s_secmem()));
  if (!bio ||
      PEM_write_bio_PKCS8PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return openSslFailure("writing a key", ErrorCode::kInvalid);
  }
  return contentOfBio(bio.get());
}

Result<SigningIdentity> readIdentity(const std::string& keyPath,
                                     const std::string& certificatesPath) {
  auto keyText = readPem(keyPath);
  if (!keyText) return std::unexpected(keyText.error());
  SigningIdentity identity;
  identity.key.reset(
      PEM_read_bio_PrivateKey(readerOf(*keyText).get(), nullptr, noPassword, nullptr));
  OPENSSL_cleanse(keyText->data(), keyText->size());
  if (!identity.key)
    return openSslFailure(keyPath + ": holds no private key in PEM without a password",
                          ErrorCode::kInvalid);
  const auto certificates = readPem(certificatesPath);
  if (!certificates) return std::unexpected(certificates.error());
  const BioHandle reader = readerOf(*certificates);
  while (CertificateHandle next{PEM_read_bio_X509(reader.get(), nullptr, nullptr, nullptr)}) {
    identity.chain.push_back(std::move(next));
  }
  takeOpenSslError();
  if (identity.chain.empty() ||
      X509_check_private_key(identity.chain.front().get(), identity.key.get()) != 1) {
    takeOpenSslError();
    return std::unexpected(Error{ErrorCode::kInvalid, 0,
                                 certificatesPath +
                                     ": its first certificate is not that of the "
                                     "key in " +
                                     keyPath});
  }
  return identity;
}

}  // namespace platform
