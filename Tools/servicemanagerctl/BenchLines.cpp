#include "Tools/servicemanagerctl/BenchLines.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

#include "Platform/Texts/QuotedText.h"

BenchLines::BenchLines(const std::string& label, platform::Duration throttle)
    : mark_("job " + platform::quotedInMessage(label) + ": "), throttle_(throttle) {}

std::optional<std::string> BenchLines::tell(std::string_view line, platform::Instant now) {
  const std::size_t at = line.find(mark_);
  if (at == line.npos) return std::nullopt;
  std::string text(line.substr(at + mark_.size()));
  // The host names the job's file before an error in it.
  isRejected_ |= line.substr(0, at).ends_with(".plist: ");
  if (text.starts_with("started process ")) started_ = now;
  if (text == "removed") return "ended";
  if (text.starts_with("process ") && text.find(" ended (") != text.npos && !isEnding_)
    text += restart(now);
  return text;
}

std::string BenchLines::restart(platform::Instant now) const {
  const platform::Duration left =
      started_ ? *started_ + throttle_ - now : platform::Duration::zero();
  if (left <= platform::Duration::zero()) return "; the job host starts it again at once";
  return fmt::format(
      "; the job host starts it again in {:.1f} s, because \"ThrottleInterval\" is {}",
      std::chrono::duration<double>(left).count(),
      std::chrono::duration_cast<std::chrono::seconds>(throttle_).count());
}
