#pragma once

#include <cerrno>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "Platform/Files/ExtendedAttributes.h"

namespace platform {

// The attributes that a test gives to paths; the files need not exist. Any thread may use it.
class FakeExtendedAttributes final : public ExtendedAttributes {
 public:
  void set(const std::string& path, std::string_view name, Data bytes) {
    const std::lock_guard lock(mutex_);
    attributes_[{path, std::string(name)}] = std::move(bytes);
  }
  void set(const std::string& path, std::string_view name, std::string_view text) {
    set(path, name, Data(text.begin(), text.end()));
  }

  Result<Data> getxattr(const std::string& path, std::string_view name,
                        std::size_t bufferSize) override {
    const std::lock_guard lock(mutex_);
    const auto found = attributes_.find({path, std::string(name)});
    if (found == attributes_.end()) {
      return std::unexpected(Error{ErrorCode::kSystem, ENODATA, path});
    }
    if (found->second.size() > bufferSize) {
      return std::unexpected(Error{ErrorCode::kSystem, ERANGE, path});
    }
    return found->second;
  }

 private:
  std::mutex mutex_;
  std::map<std::pair<std::string, std::string>, Data> attributes_;
};

}  // namespace platform
