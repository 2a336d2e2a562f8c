// Text of a `tavoctl top` frame: the header with the service's state and
// notice rates, the table's columns cut to a width, and the plain-text and
// JSON frames of --batch. Shared by the terminal view and the batch mode.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/tavo_cli/tavoctl_top_model.h"

namespace Tavo::Cli {

// What the viewer chose, shown in the header.
struct ViewChoice {
  SortKey sort = SortKey::kMemory;
  std::string filter;
  bool paused = false;
};

struct HeaderLine {
  std::string text;
  bool alert = false;  // the service is not reachable
};

class TopFormat {
 public:
  static constexpr int kUnlimited = -1;

  // "0", "512 KiB", "12.3 MiB", "640 MiB", "1.5 GiB"; "-" when unknown (< 0).
  static std::string Size(int64_t bytes);
  // "42s", "17m", "5h", "12d".
  static std::string Age(int64_t ms);
  // One glyph per second, the most recent `width` of them, scaled to the
  // largest; a blank for none. ASCII when unicode is false.
  static std::string Sparkline(const std::vector<uint32_t>& perSecond, size_t width, bool unicode);

  // The column titles and one row, with the columns that fit in `width`
  // (display columns; kUnlimited for all). Columns drop from the right.
  static std::string TableHeader(int width);
  static std::string Row(const ViewRow& row, int64_t nowMs, int width);

  static std::vector<HeaderLine> Header(const Snapshot& frame, size_t shownRows, const ViewChoice& view,
                                        int width, bool unicode);
  // A --batch frame: header, titles, every row, then an empty line.
  static std::string TextFrame(const Snapshot& frame, const std::vector<ViewRow>& rows,
                               const ViewChoice& view, bool unicode);
  // A --json frame: one object, no line break.
  static std::string JsonFrame(const Snapshot& frame, const std::vector<ViewRow>& rows, SortKey sort);

  static const char* SortName(SortKey key);
  // "memory", "dmabuf", "threads", "pid", "swap" or their key letters.
  static bool ParseSortKey(const std::string& word, SortKey* key);
};

}  // namespace Tavo::Cli
