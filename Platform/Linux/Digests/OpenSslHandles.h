#pragma once

#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/ess.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "Platform/Values/Error.h"

namespace platform {

template <auto Free>
struct OpenSslDeleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};

// Memory that OpenSSL allocated. OPENSSL_free is a macro.
struct OpenSslMemoryDeleter {
  void operator()(void* memory) const { OPENSSL_free(memory); }
};

// A stack that owns a reference to each of its certificates.
struct CertificateStackDeleter {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_pop_free(stack, X509_free); }
};

using BioHandle = std::unique_ptr<BIO, OpenSslDeleter<BIO_free_all>>;
using CmsHandle = std::unique_ptr<CMS_ContentInfo, OpenSslDeleter<CMS_ContentInfo_free>>;
using CertificateHandle = std::unique_ptr<X509, OpenSslDeleter<X509_free>>;
using CertificateStack = std::unique_ptr<STACK_OF(X509), CertificateStackDeleter>;
using CertificateStore = std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE_free>>;
using CertificateCheck = std::unique_ptr<X509_STORE_CTX, OpenSslDeleter<X509_STORE_CTX_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, OpenSslDeleter<EVP_MD_CTX_free>>;
using KeyHandle = std::unique_ptr<EVP_PKEY, OpenSslDeleter<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, OpenSslDeleter<EVP_PKEY_CTX_free>>;
using ObjectIdentifier = std::unique_ptr<ASN1_OBJECT, OpenSslDeleter<ASN1_OBJECT_free>>;
using EssHandle = std::unique_ptr<ESS_SIGNING_CERT_V2, OpenSslDeleter<ESS_SIGNING_CERT_V2_free>>;
template <typename T>
using OpenSslMemory = std::unique_ptr<T, OpenSslMemoryDeleter>;

// OpenSSL's text for the last failure on this thread, which is then cleared. Call it also after an
// expected failure, so that its text is not reported for a later one.
std::string takeOpenSslError();

// "WHAT: TEXT" with takeOpenSslError() as the text.
std::unexpected<Error> openSslFailure(const std::string& what, ErrorCode code = ErrorCode::kSystem);

}  // namespace platform
