// The cost of verifying code signatures: of an unchanged program again, and of a changed one.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/Certificates/CertificateMaker.h"
#include "Platform/Linux/Certificates/IdentityFiles.h"
#include "Platform/Linux/CodeSigning/CodeSigner.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

using namespace platform;

// A verdict depends on six files and folders on the way to the program and on three of the anchors.
// Each costs a system call, so that a change counts for the next check; the baseline has three.
const bool kGoals =
    benchmarks::atMost({"signature-unchanged", 4,
                        "verifying an unchanged program again, against open + fstat + close"}) &&
    benchmarks::atMost({"signature-hash", 1 / 0.95,
                        "verifying a changed program of 64 MiB, against OpenSSL's SHA-256 of it"});

constexpr std::size_t kLargeBytes = 64 * 1024 * 1024;
constexpr std::chrono::sys_seconds kFrom = std::chrono::sys_days{std::chrono::January / 1 / 2020};
constexpr std::chrono::sys_seconds kSigned = std::chrono::sys_days{std::chrono::January / 1 / 2025};
constexpr std::chrono::sys_seconds kNow = std::chrono::sys_days{std::chrono::January / 1 / 2060};
constexpr std::chrono::sys_seconds kTo = std::chrono::sys_days{std::chrono::January / 1 / 2070};

// A platform root with one anchor and a trusted program, some folders deep.
class SignedProgramBed {
 public:
  explicit SignedProgramBed(std::size_t bytes) {
    ::umask(022);
    const auto authority = makeIdentity(authorityRequest("Authority", kFrom, kTo),
                                        makeEcKey("P-256").value(), nullptr);
    CertificateRequest request;
    request.commonName = "Signer";
    request.notBefore = kFrom;
    request.notAfter = kTo;
    const auto signer = makeIdentity(request, makeEcKey("P-256").value(), &*authority);
    folder_.write("etc/vantor/anchors/authority.pem",
                  pemOfCertificate(authority->chain.front().get()).value());
    path_ = folder_.write("opt/product/program", std::string(bytes, 'x'));
    if (!signProgram(path_, *signer, {"com.vantor.sample", kSigned})) std::abort();
    signatures_ =
        std::move(LinuxCodeSignatures::create(folder_.path(), [this] { return now_; }).value());
  }

  const std::string& path() const { return path_; }
  void check() {
    const auto verdict = signatures_->check(path_, SecStaticCode::Kind::kProgram);
    if (!verdict) std::abort();
    benchmark::DoNotOptimize(verdict->get());
  }
  // A time at which no verdict is cached, since the program has just been written.
  void setNowToChange() {
    struct stat status{};
    if (::stat(path_.c_str(), &status) != 0) std::abort();
    now_ = WallTime(std::chrono::seconds(status.st_ctim.tv_sec));
  }

 private:
  TemporaryFolder folder_;
  std::string path_;
  WallTime now_ = kNow;
  std::unique_ptr<LinuxCodeSignatures> signatures_;
};

SignedProgramBed& smallProgram() {
  static SignedProgramBed bed(100'000);
  return bed;
}

SignedProgramBed& largeProgram() {
  static SignedProgramBed bed(kLargeBytes);
  return bed;
}

void unchangedSubject(benchmark::State& state) {
  SignedProgramBed& bed = smallProgram();
  bed.check();
  for (auto _ : state) bed.check();
}
BENCHMARK(unchangedSubject)->Name("signature-unchanged/subject");

void unchangedBaseline(benchmark::State& state) {
  const SignedProgramBed& bed = smallProgram();
  for (auto _ : state) {
    const UniqueFd file(::open(bed.path().c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status{};
    if (::fstat(file.get(), &status) != 0) state.SkipWithError("fstat");
    benchmark::DoNotOptimize(status);
  }
}
BENCHMARK(unchangedBaseline)->Name("signature-unchanged/baseline");

void hashSubject(benchmark::State& state) {
  SignedProgramBed& bed = largeProgram();
  bed.setNowToChange();
  for (auto _ : state) bed.check();
}
BENCHMARK(hashSubject)->Name("signature-hash/subject");

void hashBaseline(benchmark::State& state) {
  const SignedProgramBed& bed = largeProgram();
  // The fastest of the usual sizes.
  constexpr std::size_t kPieceBytes = 128 * 1024;
  const auto piece = std::make_unique<unsigned char[]>(kPieceBytes);
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        &EVP_MD_CTX_free);
  for (auto _ : state) {
    const UniqueFd file(::open(bed.path().c_str(), O_RDONLY | O_CLOEXEC));
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    ssize_t count = 0;
    while ((count = ::read(file.get(), piece.get(), kPieceBytes)) > 0) {
      EVP_DigestUpdate(context.get(), piece.get(), static_cast<std::size_t>(count));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(context.get(), digest, nullptr);
    benchmark::DoNotOptimize(digest[0]);
  }
}
BENCHMARK(hashBaseline)->Name("signature-hash/baseline");

}  // namespace
