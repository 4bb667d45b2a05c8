#pragma once

#include <cstddef>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// A connected pair of stream sockets: one end for the code under test, the other for the test.
class TestStream {
 public:
  TestStream();
  TestStream(const TestStream&) = delete;
  TestStream& operator=(const TestStream&) = delete;
  ~TestStream();

  // The end under test.
  Descriptor descriptor() const { return ours_; }
  // Makes it readable by `count` bytes.
  void write(std::size_t count);
  // Reads up to `count` bytes from it without blocking. Returns how many there were.
  std::size_t read(std::size_t count);

  // Closes the other end; the bytes that it wrote can still be read.
  void closePeer();

 private:
  Descriptor ours_ = -1;
  Descriptor peer_ = -1;
};

// A descriptor that can't be waited for, or none.
class TestFile {
 public:
  enum class Kind { kRegular, kDirectory, kClosed };
  explicit TestFile(Kind kind);
  TestFile(const TestFile&) = delete;
  TestFile& operator=(const TestFile&) = delete;
  ~TestFile();

  Descriptor descriptor() const { return descriptor_; }

 private:
  Descriptor descriptor_ = -1;
  bool open_ = true;
};

// The number of this process's open descriptors.
std::size_t openDescriptors();

}  // namespace platform
