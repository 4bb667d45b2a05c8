// The cost of Base64, against OpenSSL's coder.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "Benchmarks/Goal.h"
#include "Shared/Categories/Base64.h"

namespace {

const bool kGoals =
    benchmarks::atMost({"base64-encode", 1, "encoding 1 MiB in one line, against OpenSSL"}) &&
    benchmarks::atMost({"base64-lines", 1, "encoding 1 MiB in lines, against OpenSSL"}) &&
    benchmarks::atMost({"base64-decode", 1, "decoding 1 MiB of one line, against OpenSSL"}) &&
    benchmarks::atMost({"base64-decode-lines", 1, "decoding 1 MiB of lines, against OpenSSL"});

const std::vector<std::uint8_t>& bytes() {
  static const std::vector<std::uint8_t> data = [] {
    std::vector<std::uint8_t> made(1024 * 1024 - 1);  // A whole number of groups.
    for (std::size_t i = 0; i < made.size(); ++i) made[i] = static_cast<std::uint8_t>(i * 31);
    return made;
  }();
  return data;
}

// Not zeroed, as in our code.
std::unique_ptr<unsigned char[]> newBuffer(std::size_t size) {
  return std::make_unique_for_overwrite<unsigned char[]>(size);
}

std::string encoded(Base64Lines lines) {
  std::size_t length = 0;
  const auto text = newBase64Encode(bytes().data(), bytes().size(), lines, &length);
  return std::string(text.get(), length);
}

void encodeSubject(benchmark::State& state, Base64Lines lines) {
  for (auto _ : state) {
    std::size_t length = 0;
    benchmark::DoNotOptimize(newBase64Encode(bytes().data(), bytes().size(), lines, &length).get());
  }
}
BENCHMARK_CAPTURE(encodeSubject, one, Base64Lines::kOne)->Name("base64-encode/subject");
BENCHMARK_CAPTURE(encodeSubject, lines, Base64Lines::kSeparate)->Name("base64-lines/subject");

void encodeBaseline(benchmark::State& state) {
  for (auto _ : state) {
    const auto text = newBuffer(bytes().size() / 3 * 4 + 1);
    benchmark::DoNotOptimize(
        EVP_EncodeBlock(text.get(), bytes().data(), static_cast<int>(bytes().size())));
  }
}
BENCHMARK(encodeBaseline)->Name("base64-encode/baseline");

void linesBaseline(benchmark::State& state) {
  EVP_ENCODE_CTX* const context = EVP_ENCODE_CTX_new();
  for (auto _ : state) {
    const auto text = newBuffer(bytes().size() / 48 * 65 + 100);
    int length = 0;
    EVP_EncodeInit(context);
    EVP_EncodeUpdate(context, text.get(), &length, bytes().data(),
                     static_cast<int>(bytes().size()));
    EVP_EncodeFinal(context, text.get() + length, &length);
    benchmark::DoNotOptimize(text.get());
  }
  EVP_ENCODE_CTX_free(context);
}
BENCHMARK(linesBaseline)->Name("base64-lines/baseline");

void decodeSubject(benchmark::State& state, Base64Lines lines) {
  const std::string text = encoded(lines);
  for (auto _ : state) {
    std::size_t length = 0;
    benchmark::DoNotOptimize(newBase64Decode(text.data(), text.size(), &length).get());
  }
}
BENCHMARK_CAPTURE(decodeSubject, one, Base64Lines::kOne)->Name("base64-decode/subject");
BENCHMARK_CAPTURE(decodeSubject, lines, Base64Lines::kSeparate)
    ->Name("base64-decode-lines/subject");

void decodeBaseline(benchmark::State& state) {
  const std::string text = encoded(Base64Lines::kOne);
  for (auto _ : state) {
    const auto data = newBuffer(text.size() / 4 * 3);
    benchmark::DoNotOptimize(EVP_DecodeBlock(data.get(),
                                             reinterpret_cast<const unsigned char*>(text.data()),
                                             static_cast<int>(text.size())));
  }
}
BENCHMARK(decodeBaseline)->Name("base64-decode/baseline");

void decodeLinesBaseline(benchmark::State& state) {
  const std::string text = encoded(Base64Lines::kSeparate);
  EVP_ENCODE_CTX* const context = EVP_ENCODE_CTX_new();
  for (auto _ : state) {
    const auto data = newBuffer(text.size());
    int length = 0;
    EVP_DecodeInit(context);
    EVP_DecodeUpdate(context, data.get(), &length,
                     reinterpret_cast<const unsigned char*>(text.data()),
                     static_cast<int>(text.size()));
    EVP_DecodeFinal(context, data.get() + length, &length);
    benchmark::DoNotOptimize(data.get());
  }
  EVP_ENCODE_CTX_free(context);
}
BENCHMARK(decodeLinesBaseline)->Name("base64-decode-lines/baseline");

}  // namespace
