// The full-screen terminal view of `tavoctl top` (ncurses). It draws what
// it is given and reads keys; the table and its order live elsewhere.
#pragma once

#include <string>
#include <vector>

#include "tools/tavo_cli/tavoctl_top_format.h"
#include "tools/tavo_cli/tavoctl_top_model.h"

namespace Tavo::Cli {

class TopScreen {
 public:
  // Takes over the terminal; the destructor gives it back.
  TopScreen();
  ~TopScreen();
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;

  // Draws a frame. Everything is redrawn into ncurses' copy of the screen,
  // which sends the terminal only the cells that changed, so nothing flickers.
  // `prompt`, when not empty, replaces the key help on the last line.
  void Draw(const Snapshot& frame, const std::vector<ViewRow>& rows, const ViewChoice& view,
            const std::string& prompt);
  // The next key, or -1 when none is waiting (never blocks).
  int NextKey();
  bool Unicode() const { return unicode; }

 private:
  bool unicode = false;
  bool colors = false;
};

}  // namespace Tavo::Cli
