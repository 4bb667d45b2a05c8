#include "Tools/servicemanagerctl/Curses.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#define NCURSES_NOMACROS
#include <dlfcn.h>
#include <ncurses.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace platform;

namespace {

constexpr char kLibrary[] = "libncursesw.so.6";
constexpr short kGreenPair = 1;
constexpr short kRedPair = 2;

winsize sizeOfTerminal() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
    return {.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
  return size;
}

int keyOf(int key) {
  switch (key) {
    case KEY_UP:
      return top_keys::kUp;
    case KEY_DOWN:
      return top_keys::kDown;
    case KEY_PPAGE:
      return top_keys::kPageUp;
    case KEY_NPAGE:
      return top_keys::kPageDown;
    case KEY_HOME:
      return top_keys::kHome;
    case KEY_END:
      return top_keys::kEnd;
    case KEY_BACKSPACE:
    case 0x7F:
    case '\b':
      return top_keys::kBackspace;
    case KEY_ENTER:
    case '\r':
      return top_keys::kEnter;
    default:
      return key >= 0 && key < KEY_MIN ? key : 0;
  }
}

}  // namespace

struct Curses::Library {
  Library() = default;
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    if (handle) ::dlclose(handle);
  }

  // False if the library lacks the function.
  template <typename Function>
  bool find(Function*& function, const char* name) {
    function = reinterpret_cast<Function*>(::dlsym(handle, name));
    return function != nullptr;
  }

  bool load() {
    handle = ::dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    return handle && find(newterm, "newterm") && find(delscreen, "delscreen") &&
           find(endwin, "endwin") && find(newwin, "newwin") && find(keypad, "keypad") &&
           find(nodelay, "nodelay") && find(cbreak, "cbreak") && find(noecho, "noecho") &&
           find(curs_set, "curs_set") && find(start_color, "start_color") &&
           find(use_default_colors, "use_default_colors") && find(init_pair, "init_pair") &&
           find(has_colors, "has_colors") && find(set_escdelay, "set_escdelay") &&
           find(werase, "werase") && find(wmove, "wmove") && find(waddnstr, "waddnstr") &&
           find(wattrset, "wattrset") && find(wrefresh, "wrefresh") && find(wgetch, "wgetch") &&
           find(clearok, "clearok") && find(resizeterm, "resizeterm") && find(wresize, "wresize");
  }

  int attributeOf(TopLine::Look look) const {
    switch (look) {
      case TopLine::Look::kPlain:
        return 0;
      case TopLine::Look::kHeading:
        return static_cast<int>(A_BOLD);
      case TopLine::Look::kSelected:
        return static_cast<int>(A_REVERSE);
      case TopLine::Look::kGood:
        return hasColours ? static_cast<int>(NCURSES_BITS(kGreenPair, 0)) : 0;
      case TopLine::Look::kBad:
        return static_cast<int>(hasColours ? NCURSES_BITS(kRedPair, 0) : A_BOLD);
    }
    return 0;
  }

  void* handle = nullptr;
  SCREEN* screen = nullptr;
  WINDOW* window = nullptr;
  bool hasColours = false;
  decltype(::newterm)* newterm = nullptr;
  decltype(::delscreen)* delscreen = nullptr;
  decltype(::endwin)* endwin = nullptr;
  decltype(::newwin)* newwin = nullptr;
  decltype(::keypad)* keypad = nullptr;
  decltype(::nodelay)* nodelay = nullptr;
  decltype(::cbreak)* cbreak = nullptr;
  decltype(::noecho)* noecho = nullptr;
  decltype(::curs_set)* curs_set = nullptr;
  decltype(::start_color)* start_color = nullptr;
  decltype(::use_default_colors)* use_default_colors = nullptr;
  decltype(::init_pair)* init_pair = nullptr;
  decltype(::has_colors)* has_colors = nullptr;
  decltype(::set_escdelay)* set_escdelay = nullptr;
  decltype(::werase)* werase = nullptr;
  decltype(::wmove)* wmove = nullptr;
  decltype(::waddnstr)* waddnstr = nullptr;
  decltype(::wattrset)* wattrset = nullptr;
  decltype(::wrefresh)* wrefresh = nullptr;
  decltype(::wgetch)* wgetch = nullptr;
  decltype(::clearok)* clearok = nullptr;
  decltype(::resizeterm)* resizeterm = nullptr;
  decltype(::wresize)* wresize = nullptr;
};

Curses::Curses(std::unique_ptr<Library> library) : library_(std::move(library)) {}

Result<std::unique_ptr<Curses>> Curses::make() {
  auto library = std::make_unique<Library>();
  if (!library->load()) {
    const char* const why = ::dlerror();
    return std::unexpected(
        Error{ErrorCode::kNotFound, 0,
              "a screen needs libncursesw6: " + std::string(why ? why : kLibrary)});
  }
  library->screen = library->newterm(nullptr, stdout, stdin);
  if (!library->screen)
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, "TERM names no terminal that is known here"});
  library->window = library->newwin(0, 0, 0, 0);
  library->cbreak();
  library->noecho();
  library->set_escdelay(25);
  library->keypad(library->window, TRUE);
  library->nodelay(library->window, TRUE);
  library->curs_set(0);
  if (library->has_colors() && library->start_color() == OK) {
    library->use_default_colors();
    library->init_pair(kGreenPair, COLOR_GREEN, -1);
    library->init_pair(kRedPair, COLOR_RED, -1);
    library->hasColours = true;
  }
  return std::unique_ptr<Curses>(new Curses(std::move(library)));
}

Curses::~Curses() {
  library_->endwin();
  library_->delscreen(library_->screen);
}

std::size_t Curses::width() const { return sizeOfTerminal().ws_col; }
std::size_t Curses::height() const { return sizeOfTerminal().ws_row; }

// The last column of the last line stays empty: a terminal may scroll otherwise.
void Curses::draw(const std::vector<TopLine>& lines) {
  library_->werase(library_->window);
  int row = 0;
  for (const TopLine& line : lines) {
    library_->wattrset(library_->window, library_->attributeOf(line.look));
    if (library_->wmove(library_->window, row++, 0) == OK)
      library_->waddnstr(library_->window, line.text.data(), static_cast<int>(line.text.size()));
  }
  library_->wrefresh(library_->window);
}

int Curses::nextKey() {
  const int key = library_->wgetch(library_->window);
  return key == ERR ? -1 : keyOf(key);
}

void Curses::resize() {
  const winsize size = sizeOfTerminal();
  library_->resizeterm(size.ws_row, size.ws_col);
  library_->wresize(library_->window, size.ws_row, size.ws_col);
  library_->clearok(library_->window, TRUE);
}

void Curses::leave() { library_->endwin(); }

void Curses::enter() {
  resize();
  library_->wrefresh(library_->window);
}
