// The cost of digests of large data, against the library's own benchmark.

#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "Benchmarks/Goal.h"
#include "Installer/InstallationDeployer/ORBInstallerChecksum.h"
#include "Shared/Crypto/HashValue.h"

namespace {

const bool kGoals =
    benchmarks::atMost(
        {"sha256", 1 / 0.95,
         "the checksum of 64 MiB, against the loop of `openssl speed -evp sha256`"}) &&
    benchmarks::atMost(
        {"md5", 1 / 0.95, "an MD5 value of 64 MiB, against the loop of `openssl speed -evp md5`"});

const std::vector<std::uint8_t>& largeData() {
  static const std::vector<std::uint8_t> data(64 * 1024 * 1024, 'x');
  return data;
}

void opensslSpeed(benchmark::State& state, const EVP_MD* digest) {
  const auto& data = largeData();
  EVP_MD_CTX* const context = EVP_MD_CTX_new();
  unsigned char result[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    EVP_DigestInit_ex(context, digest, nullptr);
    EVP_DigestUpdate(context, data.data(), data.size());
    EVP_DigestFinal_ex(context, result, nullptr);
    benchmark::DoNotOptimize(result[0]);
  }
  EVP_MD_CTX_free(context);
}

void sha256Subject(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(ORBInstallerChecksum::generateSHA256(largeData()));
  }
}
BENCHMARK(sha256Subject)->Name("sha256/subject");
void sha256Baseline(benchmark::State& state) { opensslSpeed(state, EVP_sha256()); }
BENCHMARK(sha256Baseline)->Name("sha256/baseline");

void md5Subject(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(HashValue::initHashValueMD5HashWithBytes(largeData()));
  }
}
BENCHMARK(md5Subject)->Name("md5/subject");
void md5Baseline(benchmark::State& state) { opensslSpeed(state, EVP_md5()); }
BENCHMARK(md5Baseline)->Name("md5/baseline");

}  // namespace
