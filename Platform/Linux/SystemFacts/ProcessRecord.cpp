#include "Platform/Linux/SystemFacts/ProcessRecord.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <type_traits>
#include <utility>

namespace platform {
namespace {

// Takes a number off the front of `text`.
template <typename Number>
std::optional<Number> takeNumber(std::string_view& text) {
  Number number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
  return number;
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool atEndOfNumber(std::string_view text) {
  return text.empty() || text.front() == ' ' || text.front() == '\t' || text.front() == '\n';
}

// The rest of the line after `name`; std::nullopt if the line or its end is missing.
std::optional<std::string_view> lineAfter(std::string_view text, std::string_view name) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == text.npos) return std::nullopt;
    std::string_view line = text.substr(0, end);
    if (takePrefix(line, name)) return line;
    text.remove_prefix(end + 1);
  }
  return std::nullopt;
}

std::unexpected<Error> malformed(std::string text) {
  return std::unexpected(Error{ErrorCode::kInvalid, 0, std::move(text)});
}

}  // namespace

Result<ProcessStat> parseProcessStat(std::string_view text) {
  // The format is PID (COMMAND) STATE PPID ... A command may contain parentheses, so only the last
  // one surely ends it.
  ProcessStat stat;
  const auto process = takeNumber<ProcessId>(text);
  const bool opened = process && takePrefix(text, " (");
  const std::size_t end = text.rfind(')');
  if (!opened || end == text.npos) {
    return malformed("a process's stat file does not begin with its number and command name");
  }
  stat.process = *process;
  stat.command = text.substr(0, end);
  text.remove_prefix(end + 1);
  if (!takePrefix(text, " ") || text.size() < 3 || text[1] != ' ') {
    return malformed("a process's stat file has no state");
  }
  text.remove_prefix(2);
  const auto parent = takeNumber<ProcessId>(text);
  if (!parent || !atEndOfNumber(text)) return malformed("a process's stat file has no parent");
  stat.parent = *parent;
  return stat;
}

Result<ProcessMembership> parseProcessMembership(std::string_view text) {
  constexpr int kFieldsFromTerminalToNiceness = 13;
  // The fields behind the command: STATE PPID PGRP SESSION, 13 others, NUM_THREADS.
  text.remove_prefix(std::min(text.size(), text.rfind(')') + 1));
  ProcessMembership membership;
  const auto takeField = [&text] {
    if (!takePrefix(text, " ")) return std::string_view();
    const std::string_view field = text.substr(0, text.find_first_of(" \n"));
    text.remove_prefix(field.size());
    return field;
  };
  const auto takeNumberField = [&](auto& number) {
    std::string_view field = takeField();
    const auto taken = takeNumber<std::remove_reference_t<decltype(number)>>(field);
    number = taken.value_or(0);
    return taken && field.empty();
  };
  const std::string_view state = takeField();
  ProcessId parent = 0;
  bool complete = state.size() == 1 && takeNumberField(parent) &&
                  takeNumberField(membership.group) && takeNumberField(membership.session);
  for (int i = 0; i < kFieldsFromTerminalToNiceness; ++i)
    complete = !takeField().empty() && complete;
  if (!takeNumberField(membership.threads) || !complete) {
    return malformed("a process's stat file does not tell its group, session and threads");
  }
  membership.state = state.front();
  return membership;
}

Result<ProcessStatus> parseProcessStatus(std::string_view text) {
  auto group = lineAfter(text, "Tgid:\t");
  auto users = lineAfter(text, "Uid:\t");
  if (!group || !users) return malformed("a process's status file has no line \"Tgid\" or \"Uid\"");
  const auto threadGroup = takeNumber<ProcessId>(*group);
  const auto realUser = takeNumber<UserId>(*users);
  const bool separated = takePrefix(*users, "\t");
  const auto effectiveUser = takeNumber<UserId>(*users);
  if (!threadGroup || !group->empty() || !realUser || !separated || !effectiveUser ||
      !atEndOfNumber(*users)) {
    return malformed("a process's status file has a malformed line \"Tgid\" or \"Uid\"");
  }
  return ProcessStatus{*threadGroup, *realUser, *effectiveUser};
}

Result<std::int64_t> parseBootTime(std::string_view text) {
  auto line = lineAfter(text, "btime ");
  if (!line) return malformed("the system's stat file has no line \"btime\"");
  const auto seconds = takeNumber<std::int64_t>(*line);
  if (!seconds || *seconds < 0 || !line->empty()) {
    return malformed("the system's stat file has a malformed line \"btime\"");
  }
  return *seconds;
}

}  // namespace platform
