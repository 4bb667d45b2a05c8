#include "Tools/servicemanagerctl/Output.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/Utf8.h"
#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

std::string_view codeOf(Colour colour) {
  switch (colour) {
    case Colour::kBold:
      return "\033[1m";
    case Colour::kRed:
      return "\033[31m";
    case Colour::kGreen:
      return "\033[32m";
  }
  return "";
}

// The errno of output that was lost; 0 if none was.
std::atomic<int> whyOutputWasLost = 0;
std::atomic<bool> mayReaderLeave = false;
std::string rootOfHints;  // written by main before it starts other threads

// Quotes the text as one word of a shell's command line.
std::string asWord(const std::string& text) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%";
  if (text.find_first_not_of(kPlain) == text.npos) return text;
  std::string word = "'";
  for (const char character : text) {
    if (character == '\'') word += "'\\'";
    word += character;
  }
  return word + "'";
}

}  // namespace

Reader readerOf(int descriptor) {
  if (::isatty(descriptor) != 1) return Reader::kOther;
  const char* const noColor = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  const bool isPlain = (noColor != nullptr && *noColor != '\0') || terminal == nullptr ||
                       std::string_view(terminal) == "dumb";
  return isPlain ? Reader::kPlainTerminal : Reader::kTerminal;
}

std::size_t widthOfTerminal(int descriptor) {
  winsize size{};
  return ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::string coloured(std::string_view text, Colour colour, Reader reader) {
  if (reader != Reader::kTerminal) return std::string(text);
  return fmt::format("{}{}\033[0m", codeOf(colour), text);
}

void prepareStandardFiles() {
  int descriptor = 0;
  do {
    // The lowest free number is the closed file's own. If this fails for want of resources, nothing
    // else can be opened either.
    descriptor = ::open("/", O_PATH | O_CLOEXEC);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
  std::signal(SIGPIPE, SIG_IGN);
}

bool print(const std::string& text) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = platform::retryOnInterrupt(
        [&] { return ::write(STDOUT_FILENO, rest.data(), rest.size()); });
    if (written < 0) {
      whyOutputWasLost = errno;
      return false;
    }
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void warn(const std::string& text) { std::fwrite(text.data(), 1, text.size(), stderr); }

void letReaderLeave() { mayReaderLeave = true; }

int concludingStatus(int status) {
  const int error = whyOutputWasLost.exchange(0);
  if (error == 0 || (error == EPIPE && mayReaderLeave)) return status;
  const int failure = fail("standard output: " + std::generic_category().message(error));
  return status == EXIT_SUCCESS ? failure : status;
}

void remark(const std::string& text) {
  warn("servicemanagerctl: " + escaped(withRootInHints(text)) + "\n");
}

int fail(const std::string& why) {
  remark(why);
  return kExitFailed;
}

int fail(const platform::Error& error) {
  fail(platform::describe(error));
  return error.code == platform::ErrorCode::kDenied ? kExitNotPermitted : kExitFailed;
}

void setRootOfHints(std::string root) { rootOfHints = std::move(root); }

std::string withRootInHints(std::string_view text) {
  if (rootOfHints.empty()) return std::string(text);
  constexpr std::string_view kHint = "\"servicemanagerctl ";
  std::string result;
  for (;;) {
    const std::size_t at = text.find(kHint);
    result += text.substr(0, at);
    if (at == text.npos) return result;
    result += fmt::format("{}--root {} ", kHint, asWord(rootOfHints));
    text.remove_prefix(at + kHint.size());
  }
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    const bool fits =
        !lines.empty() && (width == 0 || lines.back().size() + 1 + word.size() <= width);
    if (fits) {
      lines.back() += fmt::format(" {}", word);
    } else {
      lines.emplace_back(word);
    }
  }
  return lines;
}

bool steersTerminals(std::int32_t character) {
  struct Range {
    std::int32_t first;
    std::int32_t last;
  };
  static constexpr std::array<Range, 9> kRanges{{{0x00, 0x1F},
                                                 {0x7F, 0x9F},
                                                 {0xAD, 0xAD},
                                                 {0x61C, 0x61C},
                                                 {0x200B, 0x200F},
                                                 {0x2028, 0x202E},
                                                 {0x2060, 0x206F},
                                                 {0xFEFF, 0xFEFF},
                                                 {0xFFF9, 0xFFFB}}};
  return std::ranges::any_of(kRanges, [character](const Range& range) {
    return character >= range.first && character <= range.last;
  });
}

std::string escaped(std::string_view text) {
  std::string result;
  for (std::size_t offset = 0; offset < text.size();) {
    const std::size_t begin = offset;
    const std::int32_t character = platform::nextCharacter(text, offset);
    if (character < 0) {
      result += "\\ufffd";
      offset = begin + 1;
    } else if (character == '\n') {
      result += "\\n";
    } else if (steersTerminals(character)) {
      result += fmt::format("\\u{:04x}", character);
    } else {
      result += text.substr(begin, offset - begin);
    }
  }
  return result;
}
