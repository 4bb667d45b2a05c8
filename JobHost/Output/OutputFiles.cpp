#include "JobHost/Output/OutputFiles.h"

#include <cstddef>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>

#include "Platform/Linux/Logging/ServiceOutputFile.h"

namespace jobhost {
namespace {

using platform::FileLogSink;
using platform::LogRecord;
using platform::Result;

constexpr mode_t kLogFolderMode = 0755;
constexpr mode_t kOutputFolderMode = 0750;
// Each holds a descriptor. Beyond this number they are opened again.
constexpr std::size_t kMaximumOpenFiles = 64;

}  // namespace

OutputFiles::File::File(std::string path)
    : sink(std::move(path), platform::kServiceOutputLimits, FileLogSink::Line::kTimeAndText) {}

OutputFiles::File& OutputFiles::fileOf(std::string_view name) {
  if (const auto known = files_.find(name); known != files_.end()) return *known->second;
  // A file that has lost lines stays, to report them.
  if (files_.size() >= kMaximumOpenFiles)
    std::erase_if(files_, [](const auto& each) { return each.second->lost == 0; });
  if (files_.size() >= kMaximumOpenFiles) files_.clear();
  ::mkdir(folder_.substr(0, folder_.rfind('/')).c_str(), kLogFolderMode);
  ::mkdir(folder_.c_str(), kOutputFolderMode);
  auto file = std::make_unique<File>(fmt::format("{}/{}.log", folder_, name));
  return *files_.emplace(std::string(name), std::move(file)).first->second;
}

// Never fails, since each file counts its own lost lines.
Result<void> OutputFiles::write(const LogRecord& record) {
  File& file = fileOf(record.ident);
  if (file.lost > 0) {
    LogRecord report = record;
    const std::string text =
        fmt::format("[{} {} not written]", file.lost, file.lost == 1 ? "line was" : "lines were");
    report.message = text;
    if (file.sink.write(report)) file.lost = 0;
  }
  if (!file.sink.write(record)) ++file.lost;
  return {};
}

}  // namespace jobhost
