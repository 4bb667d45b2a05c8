#include "Tools/servicemanagerctl/TopCommand.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tools/servicemanagerctl/Curses.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ToolProcess.h"
#include "Tools/servicemanagerctl/TopModel.h"

using namespace platform;
using namespace std::chrono_literals;

namespace {

constexpr Duration kInterval = 1s;
constexpr Duration kLate = 3s;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH};

std::vector<std::string> commandLine(const std::string& root, std::vector<std::string> command) {
  std::vector<std::string> all{"servicemanagerctl"};
  if (!root.empty()) all.insert(all.end(), {"--root", root});
  all.insert(all.end(), command.begin(), command.end());
  return all;
}

int becomeList(const std::string& root) {
  std::vector<std::string> arguments = commandLine(root, {"list"});
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  ::execv("/proc/self/exe", pointers.data());
  return fail(Error{ErrorCode::kSystem, errno, "execv"});
}

// The signals are read from a descriptor, so that the screen is left in order.
class Signals {
 public:
  Signals() {
    ::sigemptyset(&set_);
    for (const int number : kSignals) ::sigaddset(&set_, number);
    ::sigprocmask(SIG_BLOCK, &set_, &before_);
    file_.reset(::signalfd(-1, &set_, SFD_CLOEXEC | SFD_NONBLOCK));
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;
  ~Signals() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

  int descriptor() const { return file_.get(); }
  // 0 if there is none.
  int next() const {
    signalfd_siginfo info{};
    const bool isRead = ::read(file_.get(), &info, sizeof info) == sizeof info;
    return isRead ? static_cast<int>(info.ssi_signo) : 0;
  }

 private:
  sigset_t set_{};
  sigset_t before_{};
  UniqueFd file_;
};

// The shell shares the flags of the terminal's file, and the run loop may change them.
class InputFlags {
 public:
  InputFlags() = default;
  InputFlags(const InputFlags&) = delete;
  InputFlags& operator=(const InputFlags&) = delete;
  ~InputFlags() { ::fcntl(STDIN_FILENO, F_SETFL, flags_); }

 private:
  const int flags_ = ::fcntl(STDIN_FILENO, F_GETFL);
};

class Top {
 public:
  Top(RunLoop& loop, const std::string& root, Curses& screen, const Signals& signals)
      : loop_(loop), root_(root), screen_(screen), signals_(signals) {}

  Top(const Top&) = delete;
  Top& operator=(const Top&) = delete;
  // Requests that the user has made are done, also after the end of the screen.
  ~Top() {
    for (const auto& [id, action] : actions_) action->detach();
  }

  // Returns the signal that has ended it, or 0.
  Result<int> run() {
    const InputFlags restored;
    auto keys = loop_.watchReadable(STDIN_FILENO, Urgency::kOrdinary, [this] { readKeys(); });
    if (!keys) return std::unexpected(keys.error());
    auto signals =
        loop_.watchReadable(signals_.descriptor(), Urgency::kOrdinary, [this] { readSignals(); });
    if (!signals) return std::unexpected(signals.error());
    const auto timer = loop_.startTimer(kInterval, RunLoop::Repeat::kEvery, [this] { tick(); });
    tick();
    loop_.run();
    return signal_;
  }

 private:
  void draw() { screen_.draw(model_.lines(screen_.width(), screen_.height())); }

  void tick() {
    const Instant now = loop_.now();
    if (!list_) {
      startList();
    } else if (now - listBegan_ >= kLate) {
      model_.listIsLate(now - listBegan_);
    }
    draw();
  }

  void startList() {
    listBegan_ = loop_.now();
    auto list =
        start({"list", "--value", "--fields", kTopFields}, [this](ToolProcess::Outcome outcome) {
          model_.listHasEnded(outcome.hasSucceeded, outcome.output, outcome.errors,
                              loop_.wallTime());
          list_.reset();
          draw();
        });
    if (list) {
      list_ = std::move(*list);
    } else {
      model_.listHasEnded(false, "", describe(list.error()), loop_.wallTime());
    }
  }

  Result<std::unique_ptr<ToolProcess>> start(std::vector<std::string> command,
                                             ToolProcess::Ended ended) {
    return ToolProcess::start(loop_, commandLine(root_, std::move(command)), std::move(ended));
  }

  void readKeys() {
    bool isAnyRead = false;
    for (int key = screen_.nextKey(); key >= 0; key = screen_.nextKey()) {
      isAnyRead = true;
      act(model_.press(key, screen_.height()));
    }
    // The terminal is readable without a key when it has gone.
    if (!isAnyRead && ++emptyReads_ > kMostEmptyReads) return loop_.stop();
    if (isAnyRead) emptyReads_ = 0;
    draw();
  }

  void act(TopAction action) {
    switch (action.kind) {
      case TopAction::Kind::kNone:
        return;
      case TopAction::Kind::kQuit:
        return loop_.stop();
      case TopAction::Kind::kAct:
        return startAction(std::move(action.arguments));
      case TopAction::Kind::kPage:
        return startPage(std::move(action.arguments));
    }
  }

  void startAction(std::vector<std::string> command) {
    if (actions_.size() == kMostActions) return model_.actionHasEnded("still busy");
    const int id = ++lastAction_;
    auto action = start(std::move(command), [this, id](ToolProcess::Outcome outcome) {
      model_.actionHasEnded(outcome.hasSucceeded ? outcome.output : outcome.errors);
      actions_.erase(id);
      draw();
    });
    if (!action) return model_.actionHasEnded(describe(action.error()));
    actions_.emplace(id, std::move(*action));
  }

  // A new page replaces one that has not come yet.
  void startPage(std::vector<std::string> command) {
    std::string title = command.front() + " " + command.back();
    auto page = start(std::move(command), [this, title](ToolProcess::Outcome outcome) {
      model_.pageHasCome(title, outcome.output + outcome.errors);
      model_.actionHasEnded("");
      page_.reset();
      draw();
    });
    if (!page) return model_.actionHasEnded(describe(page.error()));
    page_ = std::move(*page);
  }

  void readSignals() {
    while (const int number = signals_.next()) {
      if (number == SIGWINCH) {
        screen_.resize();
        draw();
      } else if (number == SIGTSTP) {
        screen_.leave();
        ::raise(SIGSTOP);
        screen_.enter();
        draw();
      } else {
        signal_ = number;
        loop_.stop();
      }
    }
  }

  static constexpr int kMostEmptyReads = 100;
  static constexpr std::size_t kMostActions = 16;  // at the same time

  RunLoop& loop_;
  const std::string& root_;
  Curses& screen_;
  const Signals& signals_;
  TopModel model_;
  std::unique_ptr<ToolProcess> list_;
  std::unique_ptr<ToolProcess> page_;
  std::map<int, std::unique_ptr<ToolProcess>> actions_;
  int lastAction_ = 0;
  Instant listBegan_{};
  int emptyReads_ = 0;
  int signal_ = 0;
};

}  // namespace

TopCommand::TopCommand(CLI::App& app)
    : top_(app.add_subcommand("top", "A screen of all services that updates itself")) {}

int TopCommand::run(RunLoop& loop, const std::string& root) const {
  const char* const terminal = std::getenv("TERM");
  const bool isDumb = !terminal || *terminal == '\0' || std::string_view(terminal) == "dumb";
  if (isDumb || ::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1)
    return becomeList(root);
  const Signals signals;
  int signal = 0;
  {
    const auto screen = Curses::make();
    if (!screen) return fail(screen.error());
    const auto ended = Top(loop, root, **screen, signals).run();
    if (!ended) return fail(ended.error());
    signal = *ended;
  }
  // The shell learns by the signal that this was no choice of the user.
  if (signal != 0) {
    ::signal(signal, SIG_DFL);
    sigset_t one;
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    ::raise(signal);
    ::sigprocmask(SIG_UNBLOCK, &one, nullptr);
  }
  return EXIT_SUCCESS;
}
