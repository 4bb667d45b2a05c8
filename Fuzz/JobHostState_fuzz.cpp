#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Fuzz/Require.h"
#include "JobHost/State/StateReader.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

constexpr std::string_view kBoot = "boot";

void check(View file) {
  using fuzz::require;
  const auto contents = jobhost::readState(file, kBoot);
  if (!contents) {
    const std::string& text = contents.error().context;
    require(text.starts_with("at byte "), "the error names the place");
    require(text.find_first_of("\n\r") == text.npos, "one line");
    return;
  }
  std::vector<std::string> labels;
  for (const jobhost::StoredJob& job : contents->jobs) {
    require(job.dictionary["Label"] == platform::Value(job.label), "the label is the dictionary's");
    require(!job.runs || job.lastStart, "what runs was started");
    require(!job.lastStart || job.lastStart->process > 0, "a start has a process");
    labels.push_back(job.label);
  }
  std::ranges::sort(labels);
  require(std::ranges::adjacent_find(labels) == labels.end(), "a label has one job");
  if (contents->isTorn) return;
  // As after a write to a full disk.
  Bytes torn(file.begin(), file.end());
  torn.push_back(0);
  const auto again = jobhost::readState(torn, kBoot);
  require(again && again->isTorn && again->jobs.size() == labels.size(),
          "a torn record costs no other");
}

// The records of an input: for each the kind, two bytes with the size, the payload. Their checksums
// are added here, since no fuzzer would guess them.
Bytes fileOfRecords(View input) {
  Bytes file = jobhost::stateFileHeader(kBoot);
  while (input.size() >= 3) {
    const auto kind = static_cast<jobhost::RecordKind>(input[0]);
    const std::size_t wanted = input[1] | static_cast<std::size_t>(input[2]) << 8;
    input = input.subspan(3);
    const View payload = input.first(std::min(wanted, input.size()));
    const Bytes record = jobhost::makeRecord(kind, payload, jobhost::bootMark(kBoot));
    file.insert(file.end(), record.begin(), record.end());
    input = input.subspan(payload.size());
  }
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  check({bytes, size});
  check(fileOfRecords({bytes, size}));
  return 0;
}
