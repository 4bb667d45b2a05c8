#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "Platform/Linux/CodeSigning/SignatureTrailer.h"
#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

// A signed program that somebody else may have made: the trailer at its end and the CMS signature
// to which it points. It is verified without any anchors, so that every acceptance is wrong.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace platform;
  const std::span file(bytes, size);
  const auto ending = file.last(std::min(size, kTrailerBytes));
  const auto trailer = readSignatureTrailer(size, ending);
  // Without a trailer the input counts as the signature itself.
  const std::span signature =
      trailer
          ? file.subspan(static_cast<std::size_t>(trailer->payloadBytes), trailer->signatureBytes)
          : file;
  if (trailer && trailer->payloadBytes + trailer->signatureBytes + kTrailerBytes != size) abort();
  static const AnchorSet anchors = [] {
    AnchorSet none;
    none.store.reset(X509_STORE_new());
    none.certificates.reset(sk_X509_new_null());
    return none;
  }();
  const TrustedPlace place(0);
  const auto accepted = verifySignature(
      signature, "file", {anchors, place, std::chrono::sys_seconds()},
      [](const EVP_MD*) -> CodeSigningResult<DigestedContent> { return DigestedContent{}; });
  if (accepted) abort();
  (void)readSignature(signature, "file");
  return 0;
}
