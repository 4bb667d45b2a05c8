#include "Tools/servicemanagerctl/TarArchive.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>
#include <zlib.h>

namespace {

constexpr std::size_t kBlock = 512;

struct Header {
  std::array<char, 100> name{};
  std::array<char, 8> mode{};
  std::array<char, 8> user{};
  std::array<char, 8> group{};
  std::array<char, 12> size{};
  std::array<char, 12> time{};
  std::array<char, 8> checksum{};
  char type = '0';  // a regular file
  std::array<char, 100> link{};
  std::array<char, 6> magic{'u', 's', 't', 'a', 'r', '\0'};
  std::array<char, 2> version{'0', '0'};
  std::array<char, 32> userName{};
  std::array<char, 32> groupName{};
  std::array<char, 16> device{};
  std::array<char, 155> prefix{};
  std::array<char, 12> rest{};
};
static_assert(sizeof(Header) == kBlock);

template <std::size_t N>
void put(std::array<char, N>& field, std::string_view text) {
  std::memcpy(field.data(), text.data(), std::min(text.size(), N - 1));
}

template <std::size_t N>
void putOctal(std::array<char, N>& field, std::uint64_t number) {
  put(field, fmt::format("{:0{}o}", number, N - 1));
}

Header headerOf(const TarEntry& entry, std::uint64_t time) {
  Header header;
  put(header.name, entry.name);
  putOctal(header.mode, 0600);
  putOctal(header.user, 0);
  putOctal(header.group, 0);
  putOctal(header.size, entry.content.size());
  putOctal(header.time, time);
  header.checksum.fill(' ');  // It counts as blanks in the sum.
  std::uint64_t sum = 0;
  for (const char byte : std::string_view(reinterpret_cast<const char*>(&header), kBlock))
    sum += static_cast<unsigned char>(byte);
  put(header.checksum, fmt::format("{:06o}", sum));
  header.checksum[6] = '\0';
  return header;
}

}  // namespace

std::string tarOf(const std::vector<TarEntry>& entries, platform::WallTime time) {
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
  std::string tar;
  for (const TarEntry& entry : entries) {
    const Header header = headerOf(entry, static_cast<std::uint64_t>(std::max<std::int64_t>(
                                              static_cast<std::int64_t>(seconds), 0)));
    tar.append(reinterpret_cast<const char*>(&header), kBlock);
    tar += entry.content;
    tar.resize((tar.size() + kBlock - 1) / kBlock * kBlock);
  }
  return tar.append(2 * kBlock, '\0');
}

std::string gzipped(std::string_view text) {
  constexpr int kGzip = 15 + 16;  // the largest window, with the header of gzip
  constexpr int kMemoryLevel = 8;
  z_stream stream{};
  if (::deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzip, kMemoryLevel,
                     Z_DEFAULT_STRATEGY) != Z_OK)
    return {};
  std::string compressed(::deflateBound(&stream, text.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(compressed.data());
  stream.avail_out = static_cast<uInt>(compressed.size());
  const bool isDone = ::deflate(&stream, Z_FINISH) == Z_STREAM_END;
  compressed.resize(isDone ? stream.total_out : 0);
  ::deflateEnd(&stream);
  return compressed;
}
