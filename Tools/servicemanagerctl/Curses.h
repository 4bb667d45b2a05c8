#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "Platform/Values/Error.h"
#include "Tools/servicemanagerctl/TopModel.h"

// The terminal as a screen, by ncurses. That library is loaded here and not linked, since no other
// command needs it. Only one screen may exist.
class Curses {
 public:
  static platform::Result<std::unique_ptr<Curses>> make();
  Curses(const Curses&) = delete;
  Curses& operator=(const Curses&) = delete;
  // Restores the terminal.
  ~Curses();

  // The size of the terminal now.
  std::size_t width() const;
  std::size_t height() const;

  void draw(const std::vector<TopLine>& lines);
  // The next key that was pressed (TopModel.h), or a negative number if there is none.
  int nextKey();

  // The terminal has another size.
  void resize();
  // Gives the terminal back for a while, and takes it again.
  void leave();
  void enter();

 private:
  struct Library;
  explicit Curses(std::unique_ptr<Library> library);

  const std::unique_ptr<Library> library_;
};
