#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Platform/Linux/Logging/FileLogSink.h"
#include "Platform/Logging/LogSink.h"

namespace jobhost {

// Writes each line to the file of its speaker, "IDENT.log" in the folder of what services print. A
// line that a full disk refuses is counted, and a line before the next one in the same file tells
// how many there were. One thread uses this.
class OutputFiles final : public platform::LogSink {
 public:
  explicit OutputFiles(std::string folder) : folder_(std::move(folder)) {}

  platform::Result<void> write(const platform::LogRecord& record) override;

 private:
  struct File {
    explicit File(std::string path);

    platform::FileLogSink sink;
    std::uint64_t lost = 0;
  };

  File& fileOf(std::string_view name);

  const std::string folder_;
  std::map<std::string, std::unique_ptr<File>, std::less<>> files_;
};

}  // namespace jobhost
