#include "Platform/Linux/Certificates/CertificateRules.h"

#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/x509.h>

namespace platform {
namespace {

// A certificate with an RSA modulus of `bits` bits. The key can't sign: a real one of the largest
// size takes minutes to make.
CertificateHandle certificateWithRsaKey(int bits) {
  BIGNUM* const modulus = BN_new();
  EXPECT_EQ(BN_set_bit(modulus, bits - 1), 1);
  EXPECT_EQ(BN_set_bit(modulus, 0), 1);
  OSSL_PARAM_BLD* const builder = OSSL_PARAM_BLD_new();
  EXPECT_EQ(OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_N, modulus), 1);
  EXPECT_EQ(OSSL_PARAM_BLD_push_ulong(builder, OSSL_PKEY_PARAM_RSA_E, 65537), 1);
  OSSL_PARAM* const parameters = OSSL_PARAM_BLD_to_param(builder);
  EVP_PKEY_CTX* const context = EVP_PKEY_CTX_new_from_name(nullptr, "RSA", nullptr);
  EVP_PKEY* key = nullptr;
  EXPECT_EQ(EVP_PKEY_fromdata_init(context), 1);
  EXPECT_EQ(EVP_PKEY_fromdata(context, &key, EVP_PKEY_PUBLIC_KEY, parameters), 1);
  CertificateHandle certificate(X509_new());
  EXPECT_EQ(X509_set_pubkey(certificate.get(), key), 1);
  EVP_PKEY_free(key);
  EVP_PKEY_CTX_free(context);
  OSSL_PARAM_free(parameters);
  OSSL_PARAM_BLD_free(builder);
  BN_free(modulus);
  return certificate;
}

TEST(CertificateRulesTest, TheSizeOfAnRsaKeyIsLimitedBothWays) {
  for (const auto& [bits, isAccepted] : {std::pair{2047, false},
                                         {2048, true},
                                         {2049, true},
                                         {8191, true},
                                         {8192, true},
                                         {8193, false}}) {
    const auto fault = faultOfKey(certificateWithRsaKey(bits).get());
    EXPECT_EQ(!fault, isAccepted) << bits;
    if (fault) {
      EXPECT_EQ(*fault,
                "has an RSA key of " + std::to_string(bits) + " bits; accepted are 2048 to 8192");
    }
  }
}

}  // namespace
}  // namespace platform
