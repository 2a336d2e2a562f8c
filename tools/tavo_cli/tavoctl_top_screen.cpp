#include "tools/tavo_cli/tavoctl_top_screen.h"

#include <curses.h>
#include <langinfo.h>

#include <cstring>

namespace Tavo::Cli {

namespace {

enum Pair : short { kNewPair = 1, kAlertPair = 2 };

constexpr const char* kKeyHelp =
    "m memory  d dma-buf  t threads  p pid  s swap  / filter  space pause  q quit";

}  // namespace

TopScreen::TopScreen() {
  unicode = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  initscr();
  cbreak();
  noecho();
  nonl();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  curs_set(0);
  set_escdelay(25);
  if (has_colors() && start_color() == OK) {
    use_default_colors();
    colors = init_pair(kNewPair, COLOR_BLACK, COLOR_GREEN) == OK &&
             init_pair(kAlertPair, COLOR_WHITE, COLOR_RED) == OK;
  }
}

TopScreen::~TopScreen() { endwin(); }

int TopScreen::NextKey() {
  const int key = getch();
  return key == ERR ? -1 : key;
}

void TopScreen::Draw(const Snapshot& frame, const std::vector<ViewRow>& rows, const ViewChoice& view,
                     const std::string& prompt) {
  int height = 0, width = 0;
  getmaxyx(stdscr, height, width);
  erase();
  int y = 0;
  const attr_t alert = colors ? COLOR_PAIR(kAlertPair) | A_BOLD : A_REVERSE | A_BOLD;
  for (const HeaderLine& line : TopFormat::Header(frame, rows.size(), view, width, unicode)) {
    if (y >= height - 1) break;
    if (line.alert) attron(alert);
    mvaddstr(y++, 0, line.text.c_str());
    if (line.alert) attroff(alert);
  }
  if (y < height - 1) {
    const std::string titles = TopFormat::TableHeader(width);
    attron(A_REVERSE);
    mvaddstr(y, 0, titles.c_str());
    mvhline(y, static_cast<int>(titles.size()), ' ', width);
    attroff(A_REVERSE);
    ++y;
  }
  const attr_t fresh = colors ? COLOR_PAIR(kNewPair) : A_REVERSE;
  for (size_t i = 0; i < rows.size() && y < height - 1; ++i, ++y) {
    const attr_t attr = rows[i].state == RowState::kNew     ? fresh
                        : rows[i].state == RowState::kEnded ? A_DIM
                                                            : A_NORMAL;
    attron(attr);
    mvaddstr(y, 0, TopFormat::Row(rows[i], frame.nowMs, width).c_str());
    attroff(attr);
  }
  // The last line: the filter being typed, or the keys.
  const std::string bottom = prompt.empty() ? kKeyHelp : prompt;
  mvaddnstr(height - 1, 0, bottom.c_str(), width - 1);
  curs_set(prompt.empty() ? 0 : 1);
  wnoutrefresh(stdscr);
  doupdate();
}

}  // namespace Tavo::Cli
