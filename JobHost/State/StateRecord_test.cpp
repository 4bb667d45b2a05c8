#include "JobHost/State/StateRecord.h"

#include <cstddef>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace jobhost {
namespace {

const std::string kBefore = "7 (a) b) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 ";

TEST(StateRecordTest, TheStartTimeIsTheFieldBehindTheName) {
  for (const char* rest : {"1902 20", "1902", "1902\n"}) {
    const std::string stat = kBefore + rest;
    EXPECT_EQ(startTicksIn(stat.data(), stat.size()), 1902) << rest;
  }
}

// Holds a text that ends where no byte can be read any more.
class TextBeforeAGap {
 public:
  explicit TextBeforeAGap(const std::string& text) : size_(text.size()) {
    EXPECT_NE(pages_, MAP_FAILED);
    EXPECT_EQ(::mprotect(static_cast<char*>(pages_) + page_, page_, PROT_NONE), 0);
    std::memcpy(data(), text.data(), size_);
  }
  TextBeforeAGap(const TextBeforeAGap&) = delete;
  TextBeforeAGap& operator=(const TextBeforeAGap&) = delete;
  ~TextBeforeAGap() { ::munmap(pages_, 2 * page_); }

  char* data() const { return static_cast<char*>(pages_) + page_ - size_; }
  std::size_t size() const { return size_; }

 private:
  const std::size_t page_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const pages_ =
      ::mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  const std::size_t size_;
};

TEST(StateRecordTest, NoByteBehindTheTextIsRead) {
  const auto ticksIn = [](const std::string& text) {
    const TextBeforeAGap stat(text);
    return startTicksIn(stat.data(), stat.size());
  };
  EXPECT_EQ(ticksIn(kBefore + "1902"), 1902);
  EXPECT_EQ(ticksIn(kBefore), 0);
  EXPECT_EQ(ticksIn(kBefore.substr(0, kBefore.size() - 1)), 0);
  EXPECT_EQ(ticksIn("7 (a)"), 0);
  EXPECT_EQ(ticksIn("7"), 0);
  EXPECT_EQ(ticksIn(""), 0);
}

TEST(StateRecordTest, ATextWithoutANameHasNoStartTime) {
  const std::string stat = "7 a S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 1902";
  EXPECT_EQ(startTicksIn(stat.data(), stat.size()), 0);
}

}  // namespace
}  // namespace jobhost
