#include "Platform/Linux/CodeSigning/BundleContents.h"

#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Files/Bundle.h"
#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr std::size_t kMostLinkBytes = 4095;

// The kernel gives up on ".." with EAGAIN if any process renames anything meanwhile, and leaves it
// to the caller to try again. Beside one process that does nothing else, one call of a hundred
// fails.
constexpr int kMostTriesBesideRenames = 1000;

int openBeneath(int folder, const std::string& relative) {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  int descriptor = -1;
  for (int tries = 0; tries < kMostTriesBesideRenames; ++tries) {
    descriptor = static_cast<int>(retryOnInterrupt(
        [&] { return ::syscall(SYS_openat2, folder, relative.c_str(), &how, sizeof how); }));
    if (descriptor >= 0 || errno != EAGAIN) break;
  }
  return descriptor;
}

// The kernel resolves the link, because its text does not show which other links it passes through.
CodeSigningResult<void> checkStaysInside(int bundle, const std::string& relative,
                                         const std::string& path) {
  const UniqueFd target(openBeneath(bundle, relative));
  if (target) return {};
  if (errno == EXDEV)
    return refuseResource(path + ": is a symbolic link that leads out of the bundle");
  if (errno == ENOENT) return refuseResource(path + ": is a symbolic link that leads nowhere");
  return std::unexpected(failureOfSystemCall(path, errno));
}

CodeSigningResult<std::string> readLink(const std::string& path) {
  std::array<char, kMostLinkBytes + 1> text;
  const ssize_t size = ::readlink(path.c_str(), text.data(), text.size());
  if (size < 0) return std::unexpected(failureOfSystemCall(path, errno));
  return std::string(text.data(), static_cast<std::size_t>(size));
}

class Listing {
 public:
  Listing(std::string bundle, UniqueFd descriptor)
      : bundle_(std::move(bundle)),
        sealFolder_(sealFolderOfBundle(bundle_)),
        descriptor_(std::move(descriptor)) {}

  CodeSigningResult<BundleContents> list() {
    std::vector<Folder> left{{bundle_, 0}};
    while (!left.empty()) {
      const Folder folder = std::move(left.back());
      left.pop_back();
      const auto names = namesInFolder(folder.path, kMaxBundleItems);
      if (!names) return std::unexpected(failureOfSystemCall(folder.path, names.error().osError));
      for (const std::string& name : *names) {
        auto below = take(folder, folder.path + "/" + name);
        if (!below) return std::unexpected(below.error());
        if (*below) left.push_back(**std::move(below));
      }
    }
    return std::move(contents_);
  }

 private:
  struct Folder {
    std::string path;
    std::size_t depth;
  };

  // Returns the folder if the entry is one that must be listed in turn.
  CodeSigningResult<std::optional<Folder>> take(const Folder& in, std::string path) {
    if (in.path == sealFolder_ && (path == sealFolder_ + "/" + std::string(kSealListName) ||
                                   path == sealFolder_ + "/" + std::string(kSealSignatureName))) {
      return std::nullopt;
    }
    if (contents_.facts.size() >= kMaxBundleItems) {
      return refuseResource(
          fmt::format("{}: holds more than {} files, folders and links", bundle_, kMaxBundleItems));
    }
    const auto status = fileStatus(path);
    if (!status && status.error().status == kErrnoStatusBase + ENOENT) {
      return changedMeanwhile(status.error().reason);  // It was there a moment ago.
    }
    if (!status) return std::unexpected(status.error());
    contents_.facts.push_back({path, FileFact::Covers::kContents, *status});
    if (S_ISDIR(status->st_mode)) {
      if (in.depth + 1 > kMaxBundleDepth) {
        return refuseResource(
            fmt::format("{}: lies more than {} folders deep", path, kMaxBundleDepth));
      }
      return Folder{std::move(path), in.depth + 1};
    }
    auto added = addItem(std::move(path), *status);
    if (!added) return std::unexpected(added.error());
    return std::nullopt;
  }

  CodeSigningResult<void> addItem(std::string path, const struct stat& status) {
    std::string relative = path.substr(bundle_.size() + 1);
    const bool isLink = S_ISLNK(status.st_mode);
    if (!isLink && !S_ISREG(status.st_mode)) {
      return refuseResource(path + ": is neither a file, a folder nor a symbolic link");
    }
    std::string text;
    if (isLink) {
      if (auto inside = checkStaysInside(descriptor_.get(), relative, path); !inside) return inside;
      auto read = readLink(path);
      if (!read) return std::unexpected(read.error());
      text = *std::move(read);
    }
    contents_.items.emplace(
        std::move(relative),
        BundleContents::Item{std::move(path), static_cast<std::uint64_t>(status.st_size), isLink,
                             std::move(text)});
    return {};
  }

  const std::string bundle_;
  const std::string sealFolder_;
  const UniqueFd descriptor_;
  BundleContents contents_;
};

}  // namespace

std::string sealFolderOfBundle(std::string_view path) {
  const bool hasContents = isBundleName(path.substr(path.rfind('/') + 1));
  return fmt::format("{}{}/_CodeSignature", path, hasContents ? "/Contents" : "");
}

std::string bundleAroundProgram(std::string_view path) {
  constexpr std::string_view kInside = "/Contents/";
  for (std::size_t at = 0; (at = path.find(kInside, at)) != path.npos; at += kInside.size() - 1) {
    const std::string_view folder = path.substr(0, at);
    if (isBundleName(folder.substr(folder.rfind('/') + 1))) return std::string(folder);
  }
  return {};
}

CodeSigningResult<BundleContents> listBundle(const std::string& path) {
  UniqueFd descriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!descriptor) return std::unexpected(failureOfSystemCall(path, errno));
  return Listing(path, std::move(descriptor)).list();
}

}  // namespace platform
