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
  // Makes it readable by so many bytes.
  void write(std::size_t count);
  // Takes up to so many bytes from it, without waiting. How many there were.
  std::size_t read(std::size_t count);

  // The other side goes; what it wrote can still be read.
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

// How many descriptors this process has open.
std::size_t openDescriptors();

}  // namespace platform
