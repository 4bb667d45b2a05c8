#include "Tools/servicemanagerctl/TopModel.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <optional>
#include <utility>

#include <fmt/format.h>

#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/TimeWords.h"

using namespace platform;

namespace {

constexpr std::size_t kMostPageLines = 10'000;
constexpr std::size_t kLinesAround = 4;  // title, heading, what an action said, and keys
constexpr char kKeys[] = "/ filter  s start  t stop  r restart  e explain  l log  ? help  q quit";
constexpr std::array kHelp{
    "up, down, Page Up, Page Down, Home, End   choose a service",
    "/        show only services whose label, state or reason has this text; Esc shows all",
    "s        start the chosen service",
    "t        stop it, until it or the service manager is started again",
    "r        restart it",
    "e        explain why it runs or does not",
    "l        its log",
    "q        quit; in a page, back to the list",
    "",
    "The list is asked for again each second.",
};

// A separator at the end begins no part.
std::vector<std::string> partsOf(std::string_view text, char separator) {
  std::vector<std::string> found;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    found.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(text.size(), end + 1));
  }
  return found;
}

// The first `width` characters, padded to that.
std::string fitted(std::string_view text, std::size_t width) {
  std::string cell;
  std::size_t characters = 0;
  for (const char byte : text) {
    const bool isContinued = (static_cast<unsigned char>(byte) & 0xC0u) == 0x80u;
    if (!isContinued && characters++ == width) return cell;
    cell += byte;
  }
  return cell + std::string(width - characters, ' ');
}

std::string ageSince(const std::string& time, WallTime now) {
  int year = 0, hour = 0, minute = 0, second = 0;
  unsigned month = 0, day = 0;
  if (std::sscanf(time.c_str(), "%4d-%2u-%2uT%2d:%2d:%2d", &year, &month, &day, &hour, &minute,
                  &second) != 6)
    return "-";
  const std::chrono::sys_days date{std::chrono::year(year) / std::chrono::month(month) /
                                   std::chrono::day(day)};
  return ageInWords(now - (date + std::chrono::hours(hour) + std::chrono::minutes(minute) +
                           std::chrono::seconds(second)));
}

std::optional<TopRow> topRowOf(const std::string& line, WallTime now) {
  std::vector<std::string> cells = partsOf(line, '\t');
  if (cells.empty() || cells.front().empty()) return std::nullopt;
  cells.resize(6);
  return TopRow{.label = cells[0],
                .state = cells[1],
                .process = cells[2].empty() ? "-" : cells[2],
                .since = ageSince(cells[3], now),
                .starts = cells[4].empty() ? "-" : cells[4],
                .why = cells[5]};
}

TopLine::Look lookOf(const TopRow& row) {
  if (row.state.starts_with("running")) return TopLine::Look::kGood;
  const bool isBad = row.state == "waiting" || row.state == "no extension" ||
                     row.state == "unchecked" || row.state == "unknown";
  return isBad ? TopLine::Look::kBad : TopLine::Look::kPlain;
}

std::string firstLine(std::string_view text) {
  return std::string(text.substr(0, text.find('\n')));
}

// The widths of the columns before the reason. A narrow screen lacks two of them.
struct Columns {
  std::size_t label;
  bool isNarrow;
};

Columns columnsFor(const std::vector<const TopRow*>& rows, std::size_t width) {
  const bool isNarrow = width < 72;
  // The others take 22 columns on a narrow screen and 36 on a wide one, and a reason needs some.
  const std::size_t others = isNarrow ? 28 : 50;
  std::size_t label = 5;
  for (const TopRow* row : rows) label = std::max(label, row->label.size());
  return {std::min(label, std::max(width, others + 10) - others), isNarrow};
}

std::string topLineOf(const TopRow& row, const Columns& columns) {
  const std::string begin = fmt::format("{} {} {:>7} ", fitted(row.label, columns.label),
                                        fitted(row.state, 12), row.process);
  if (columns.isNarrow) return begin + row.why;
  return begin + fmt::format("{:>6} {:>6} {}", row.since, row.starts, row.why);
}

}  // namespace

void TopModel::listHasEnded(bool hasSucceeded, std::string_view output, std::string_view errors,
                            WallTime now) {
  if (!hasSucceeded) {
    const std::string why = firstLine(errors);
    problem_ = why.empty() ? "The service manager was not asked." : why;
    return;
  }
  problem_ = firstLine(errors);  // a remark, such as a busy main thread
  rows_.clear();
  for (const std::string& line : partsOf(output, '\n')) {
    if (auto row = topRowOf(line, now)) rows_.push_back(*std::move(row));
  }
  // The next list may have another order, and the selection stays with its service.
  if (selected_.empty()) selectFirst();
}

void TopModel::listIsLate(Duration late) {
  problem_ = fmt::format("No answer for {} s; these services are of before.",
                         std::chrono::duration_cast<std::chrono::seconds>(late).count());
}

void TopModel::actionHasEnded(std::string_view said) { said_ = firstLine(said); }

void TopModel::pageHasCome(std::string title, std::string_view text) {
  view_ = View::kPage;
  title_ = std::move(title);
  page_ = partsOf(text, '\n');
  if (page_.size() > kMostPageLines)
    page_.erase(page_.begin(), page_.end() - static_cast<std::ptrdiff_t>(kMostPageLines));
  firstLine_ = 0;
}

TopAction TopModel::press(int key, std::size_t height) {
  if (isTypingFilter_) {
    typeFilter(key);
    return {};
  }
  if (view_ == View::kList) return pressInList(key, height);
  pressInPage(key, height);
  return {};
}

void TopModel::typeFilter(int key) {
  if (key == top_keys::kEnter) {
    isTypingFilter_ = false;
    if (!selection(shownRows())) selectFirst();
  } else if (key == top_keys::kEscape) {
    isTypingFilter_ = false;
    filter_.clear();
  } else if (key == top_keys::kBackspace) {
    if (!filter_.empty()) filter_.pop_back();
  } else if (key >= ' ' && key < 0x7F && filter_.size() < 80) {
    filter_ += static_cast<char>(key);
  }
}

TopAction TopModel::pressInList(int key, std::size_t height) {
  const auto page = static_cast<std::ptrdiff_t>(std::max(height, kLinesAround + 1) - kLinesAround);
  const auto all = static_cast<std::ptrdiff_t>(rows_.size());
  switch (key) {
    case 'q':
      return {.kind = TopAction::Kind::kQuit};
    case 's':
      return actOn("start", TopAction::Kind::kAct);
    case 't':
      return actOn("stop", TopAction::Kind::kAct);
    case 'r':
      return actOn("restart", TopAction::Kind::kAct);
    case 'e':
      return actOn("explain", TopAction::Kind::kPage);
    case 'l':
      return actOn("log", TopAction::Kind::kPage);
    case '/':
      isTypingFilter_ = true;
      filter_.clear();
      break;
    case '?':
      view_ = View::kHelp;
      break;
    case top_keys::kEscape:
      filter_.clear();
      break;
    case top_keys::kUp:
    case 'k':
      select(-1);
      break;
    case top_keys::kDown:
    case 'j':
      select(1);
      break;
    case top_keys::kPageUp:
      select(-page);
      break;
    case top_keys::kPageDown:
      select(page);
      break;
    case top_keys::kHome:
      select(-all);
      break;
    case top_keys::kEnd:
      select(all);
      break;
    default:
      break;
  }
  return {};
}

void TopModel::pressInPage(int key, std::size_t height) {
  const std::size_t shown = std::max(height, std::size_t{3}) - 2;
  const std::size_t last = page_.size() > shown ? page_.size() - shown : 0;
  if (key == top_keys::kDown || key == 'j') firstLine_ += 1;
  if (key == top_keys::kPageDown || key == ' ') firstLine_ += shown;
  if (key == top_keys::kUp || key == 'k') firstLine_ -= std::min(firstLine_, std::size_t{1});
  if (key == top_keys::kPageUp) firstLine_ -= std::min(firstLine_, shown);
  if (key == top_keys::kHome) firstLine_ = 0;
  if (key == top_keys::kEnd) firstLine_ = last;
  firstLine_ = std::min(firstLine_, last);
  if (key == 'q' || key == '?' || key == top_keys::kEscape || key == top_keys::kEnter)
    view_ = View::kList;
}

TopAction TopModel::actOn(std::string_view verb, TopAction::Kind kind) {
  const auto rows = shownRows();
  if (!selection(rows)) {
    said_ = "choose a service";
    return {};
  }
  said_ = fmt::format("{} {} ...", verb, selected_);
  return {.kind = kind, .arguments = {std::string(verb), selected_}};
}

std::vector<const TopRow*> TopModel::shownRows() const {
  std::vector<const TopRow*> shown;
  for (const TopRow& row : rows_) {
    const auto has = [this](const std::string& text) { return text.find(filter_) != text.npos; };
    if (has(row.label) || has(row.state) || has(row.why)) shown.push_back(&row);
  }
  return shown;
}

std::optional<std::size_t> TopModel::selection(const std::vector<const TopRow*>& rows) const {
  const auto found = std::ranges::find(rows, selected_, &TopRow::label);
  if (found == rows.end()) return std::nullopt;
  return static_cast<std::size_t>(found - rows.begin());
}

void TopModel::selectFirst() {
  if (const auto rows = shownRows(); !rows.empty()) selected_ = rows.front()->label;
}

void TopModel::select(std::ptrdiff_t step) {
  said_.clear();
  const auto rows = shownRows();
  if (rows.empty()) return;
  const auto last = static_cast<std::ptrdiff_t>(rows.size()) - 1;
  const auto selected = selection(rows);
  const auto before = selected ? static_cast<std::ptrdiff_t>(*selected) : std::ptrdiff_t{-1};
  const auto wanted = before + step;
  selected_ = rows[static_cast<std::size_t>(std::clamp<std::ptrdiff_t>(wanted, 0, last))]->label;
}

std::string TopModel::footer() const {
  return isTypingFilter_ ? fmt::format("Filter: {}_   Enter keeps it, Esc shows all", filter_)
                         : kKeys;
}

std::vector<TopLine> TopModel::lines(std::size_t width, std::size_t height) const {
  std::vector<TopLine> lines =
      view_ == View::kList ? linesOfList(width, height) : linesOfPage(width, height);
  if (lines.size() > height) lines.resize(height);
  for (TopLine& line : lines) line.text = fitted(line.text, width);
  return lines;
}

std::vector<TopLine> TopModel::linesOfList(std::size_t width, std::size_t height) const {
  using enum TopLine::Look;
  const auto rows = shownRows();
  const std::string filtered = filter_.empty() ? "" : fmt::format(", with \"{}\"", filter_);
  std::vector<TopLine> lines{
      {fmt::format("{} of {} services{}  {}", rows.size(), rows_.size(), filtered, problem_),
       problem_.empty() ? kPlain : kBad}};
  const Columns columns = columnsFor(rows, width);
  lines.push_back(
      {topLineOf({"LABEL", "STATE", "PID", "SINCE", "STARTS", "WHY"}, columns), kHeading});
  const std::size_t room = height > kLinesAround ? height - kLinesAround : 0;
  const std::optional<std::size_t> selected = selection(rows);
  const std::size_t first = selected && *selected >= room && room > 0 ? *selected - room + 1 : 0;
  for (std::size_t i = first; i < rows.size() && i < first + room; ++i)
    lines.push_back({topLineOf(*rows[i], columns), i == selected ? kSelected : lookOf(*rows[i])});
  lines.resize(std::max(lines.size(), room + 2));
  // The column of the reason may be too narrow for it.
  const bool hasReason = said_.empty() && selected && !rows[*selected]->why.empty();
  lines.push_back({hasReason ? selected_ + ": " + rows[*selected]->why : said_});
  lines.push_back({footer(), kHeading});
  return lines;
}

std::vector<TopLine> TopModel::linesOfPage(std::size_t width, std::size_t height) const {
  const bool isHelp = view_ == View::kHelp;
  std::vector<std::string> text;
  for (std::size_t i = 0; isHelp && i < kHelp.size(); ++i) text.emplace_back(kHelp[i]);
  for (std::size_t i = firstLine_; !isHelp && i < page_.size() && text.size() < height; ++i) {
    if (page_[i].size() <= width) {
      text.push_back(page_[i]);
      continue;
    }
    const auto parts = wrapped(page_[i], width);
    text.insert(text.end(), parts.begin(), parts.end());
  }
  const std::size_t room = height > 2 ? height - 2 : 0;
  text.resize(room);
  std::vector<TopLine> lines{{isHelp ? "Keys" : title_, TopLine::Look::kHeading}};
  for (std::string& line : text) lines.push_back({std::move(line)});
  lines.push_back(
      {isHelp ? "q back" : "up, down, Page Up, Page Down  q back", TopLine::Look::kHeading});
  return lines;
}
