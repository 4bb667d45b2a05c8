#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Time.h"

// The content of the screen of "top", and the effect of its keys, without a terminal.

struct TopRow {
  std::string label, state, process, since, starts, why;

  bool operator==(const TopRow&) const = default;
};

// The fields that TopModel::listHasEnded() reads, in their order, for "list --value --fields".
inline constexpr char kTopFields[] = "label,state,pid,since,starts,why";

// The keys that are no characters.
namespace top_keys {
inline constexpr int kUp = 0x110000;  // behind the last character of Unicode
inline constexpr int kDown = kUp + 1;
inline constexpr int kPageUp = kUp + 2;
inline constexpr int kPageDown = kUp + 3;
inline constexpr int kHome = kUp + 4;
inline constexpr int kEnd = kUp + 5;
inline constexpr int kBackspace = kUp + 6;
inline constexpr int kEscape = 27;
inline constexpr int kEnter = '\n';
}  // namespace top_keys

// The work that a key leaves to the caller.
struct TopAction {
  enum class Kind {
    kNone,
    kQuit,
    kAct,   // run the command, then report its end to actionHasEnded()
    kPage,  // run the command, then give its output to pageHasCome()
  };
  Kind kind = Kind::kNone;
  std::vector<std::string> arguments = {};

  bool operator==(const TopAction&) const = default;
};

struct TopLine {
  enum class Look { kPlain, kHeading, kSelected, kGood, kBad };
  std::string text;
  Look look = Look::kPlain;

  bool operator==(const TopLine&) const = default;
};

class TopModel {
 public:
  // The output and errors of a "list" that has ended. Without success the last rows stay, and the
  // screen says that they are old, and why.
  void listHasEnded(bool hasSucceeded, std::string_view output, std::string_view errors,
                    platform::WallTime now);
  // A "list" has not ended for so long.
  void listIsLate(platform::Duration late);
  void actionHasEnded(std::string_view said);
  void pageHasCome(std::string title, std::string_view text);

  // `height` is that of the screen, for keys that turn a page.
  TopAction press(int key, std::size_t height);

  // The screen from the top, at most `height` lines of `width` columns.
  std::vector<TopLine> lines(std::size_t width, std::size_t height) const;

 private:
  enum class View { kList, kPage, kHelp };

  std::vector<const TopRow*> shownRows() const;
  // The place of the selection among the shown rows; none if it is not shown.
  std::optional<std::size_t> selection(const std::vector<const TopRow*>& rows) const;
  void selectFirst();
  void select(std::ptrdiff_t step);
  void typeFilter(int key);
  TopAction pressInList(int key, std::size_t height);
  void pressInPage(int key, std::size_t height);
  TopAction actOn(std::string_view verb, TopAction::Kind kind);
  std::vector<TopLine> linesOfList(std::size_t width, std::size_t height) const;
  std::vector<TopLine> linesOfPage(std::size_t width, std::size_t height) const;
  std::string footer() const;

  View view_ = View::kList;
  std::vector<TopRow> rows_;
  std::string selected_;  // a label
  std::string filter_;
  bool isTypingFilter_ = false;
  std::string problem_ = "Asking the service manager ...";  // empty if the rows are of now
  std::string said_;                                        // by the last action
  std::string title_;
  std::vector<std::string> page_;
  std::size_t firstLine_ = 0;  // of the page
};
