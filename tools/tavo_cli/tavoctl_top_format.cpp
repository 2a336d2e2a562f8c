#include "tools/tavo_cli/tavoctl_top_format.h"

#include <android-base/stringprintf.h>

#include <algorithm>
#include <array>

#include "client/tavo_client.h"
#include "client/tavo_event_format.h"

namespace Tavo::Cli {

namespace {

using android::base::StringPrintf;

struct Column {
  const char* title;
  int width;
  bool left;
};

// The first is the state mark: '+' just started, '-' just ended.
constexpr std::array<Column, 12> kColumns = {{{"", 1, true},
                                              {"PID", 7, false},
                                              {"PPID", 7, false},
                                              {"UID", 6, false},
                                              {"NAME", 15, true},
                                              {"THR", 4, false},
                                              {"ANON", 8, false},
                                              {"FILE", 8, false},
                                              {"SHMEM", 8, false},
                                              {"SWAP", 8, false},
                                              {"DMABUF", 8, false},
                                              {"AGE", 5, false}}};

constexpr std::array<const char*, kRateKinds> kRateNames = {"start", "end", "threads", "memory", "dmabuf"};

struct SortName {
  SortKey key;
  const char* name;
  char letter;
};
constexpr SortName kSortNames[] = {{SortKey::kMemory, "memory", 'm'},
                                   {SortKey::kDmabuf, "dmabuf", 'd'},
                                   {SortKey::kThreads, "threads", 't'},
                                   {SortKey::kPid, "pid", 'p'},
                                   {SortKey::kSwap, "swap", 's'}};

// Names come from processes: anything unprintable shows as '?'.
std::string Printable(const std::string& text) {
  std::string out = text;
  for (char& c : out) {
    if (c < 0x20 || c > 0x7e) c = '?';
  }
  return out;
}

std::string Join(const std::array<std::string, kColumns.size()>& cells, int width) {
  std::string line;
  for (size_t i = 0; i < kColumns.size(); ++i) {
    const Column& column = kColumns[i];
    std::string cell = cells[i].substr(0, static_cast<size_t>(column.width));
    const size_t pad = static_cast<size_t>(column.width) - cell.size();
    cell = column.left ? cell + std::string(pad, ' ') : std::string(pad, ' ') + cell;
    const std::string next = line.empty() ? cell : line + ' ' + cell;
    if (width != TopFormat::kUnlimited && next.size() > static_cast<size_t>(width)) break;
    line = next;
  }
  // A left-aligned last column leaves blanks that mean nothing.
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

// Cuts to `width` display columns; each sparkline glyph is three bytes, one column.
std::string Fit(const std::string& text, int width) {
  if (width == TopFormat::kUnlimited) return text;
  size_t columns = 0, pos = 0;
  while (pos < text.size() && columns < static_cast<size_t>(width)) {
    pos += (static_cast<unsigned char>(text[pos]) & 0xe0) == 0xe0 ? 3 : 1;
    ++columns;
  }
  return text.substr(0, pos);
}

const char* StateName(RowState state) {
  switch (state) {
    case RowState::kNew: return "new";
    case RowState::kEnded: return "ended";
    case RowState::kRunning: break;
  }
  return "running";
}

std::string JsonSize(int64_t bytes) { return bytes < 0 ? "null" : std::to_string(bytes); }

}  // namespace

std::string TopFormat::Size(int64_t bytes) {
  if (bytes < 0) return "-";
  if (bytes == 0) return "0";
  constexpr int64_t kKiB = 1024, kMiB = kKiB << 10, kGiB = kMiB << 10;
  if (bytes < kMiB) return StringPrintf("%lld KiB", static_cast<long long>((bytes + kKiB - 1) / kKiB));
  const struct {
    int64_t unit;
    const char* name;
  } units[] = {{kMiB, "MiB"}, {kGiB, "GiB"}};
  for (const auto& u : units) {
    if (bytes < 10 * u.unit) return StringPrintf("%.1f %s", static_cast<double>(bytes) / u.unit, u.name);
    if (bytes < 1024 * u.unit || u.unit == kGiB) {
      return StringPrintf("%lld %s", static_cast<long long>(bytes / u.unit), u.name);
    }
  }
  return "";
}

std::string TopFormat::Age(int64_t ms) {
  const int64_t s = std::max<int64_t>(ms, 0) / 1000;
  if (s < 60) return StringPrintf("%llds", static_cast<long long>(s));
  if (s < 3600) return StringPrintf("%lldm", static_cast<long long>(s / 60));
  if (s < 86400) return StringPrintf("%lldh", static_cast<long long>(s / 3600));
  return StringPrintf("%lldd", static_cast<long long>(s / 86400));
}

std::string TopFormat::Sparkline(const std::vector<uint32_t>& perSecond, size_t width, bool unicode) {
  static const char* const kBlocks[] = {"\u2581", "\u2582", "\u2583", "\u2584",
                                        "\u2585", "\u2586", "\u2587", "\u2588"};
  static const char kAscii[] = "_.-:=+*#";
  const size_t first = perSecond.size() > width ? perSecond.size() - width : 0;
  const uint64_t most = perSecond.empty() ? 0 : *std::max_element(perSecond.begin() + first, perSecond.end());
  std::string out;
  for (size_t i = first; i < perSecond.size(); ++i) {
    if (perSecond[i] == 0) {
      out += ' ';
      continue;
    }
    const size_t level = static_cast<size_t>((perSecond[i] * 8ull + most - 1) / most) - 1;  // 0..7
    out += unicode ? std::string(kBlocks[level]) : std::string(1, kAscii[level]);
  }
  return out;
}

std::string TopFormat::TableHeader(int width) {
  std::array<std::string, kColumns.size()> cells;
  for (size_t i = 0; i < kColumns.size(); ++i) cells[i] = kColumns[i].title;
  return Join(cells, width);
}

std::string TopFormat::Row(const ViewRow& view, int64_t nowMs, int width) {
  const ProcessRow& p = view.process;
  const char* mark = view.state == RowState::kNew ? "+" : view.state == RowState::kEnded ? "-" : "";
  return Join({mark, std::to_string(p.pid), std::to_string(p.ppid), std::to_string(p.uid), Printable(p.name),
               std::to_string(p.threads), Size(p.anon), Size(p.file), Size(p.shmem), Size(p.swap),
               Size(p.dmabuf), Age(nowMs - p.startMs)},
              width);
}

std::vector<HeaderLine> TopFormat::Header(const Snapshot& frame, size_t shownRows, const ViewChoice& view,
                                          int width, bool unicode) {
  std::vector<HeaderLine> lines;
  std::string title = "tavoctl top - " + Client::ClockNow().substr(0, 8) + "  sort: " + SortName(view.sort);
  if (!view.filter.empty()) title += "  filter: " + Printable(view.filter);
  if (view.paused) title += "  [paused]";
  lines.push_back({title, false});
  if (frame.connected) {
    const std::string clients = frame.clients < 0 ? "unknown" : std::to_string(frame.clients);
    lines.push_back({"service: connected  clients: " + clients + "  records lost: unknown", false});
  } else {
    lines.push_back({std::string("service: NOT REACHABLE, reconnecting; the table is as last known (no socket @") +
                         Client::kServiceSocket + ")",
                     true});
  }
  // label, sparkline, rate of the last complete second
  const size_t room = width == kUnlimited ? kRateSeconds : static_cast<size_t>(std::max(width - 17, 0));
  for (int kind = 0; kind < kRateKinds; ++kind) {
    const std::vector<uint32_t>& rate = frame.rates[kind];
    lines.push_back({StringPrintf("%-8s%s %6u/s", kRateNames[kind],
                                  Sparkline(rate, std::min<size_t>(room, kRateSeconds), unicode).c_str(),
                                  rate.empty() ? 0u : rate.back()),
                     false});
  }
  size_t fresh = 0, ended = 0;
  for (const ViewRow& row : frame.rows) {
    fresh += row.state == RowState::kNew;
    ended += row.state == RowState::kEnded;
  }
  lines.push_back({StringPrintf("processes: %zu (shown %zu)  new: %zu  ended: %zu", frame.rows.size(), shownRows,
                                fresh, ended),
                   false});
  for (HeaderLine& line : lines) line.text = Fit(line.text, width);
  return lines;
}

std::string TopFormat::TextFrame(const Snapshot& frame, const std::vector<ViewRow>& rows, const ViewChoice& view,
                                 bool unicode) {
  std::string out;
  for (const HeaderLine& line : Header(frame, rows.size(), view, kUnlimited, unicode)) out += line.text + "\n";
  out += TableHeader(kUnlimited) + "\n";
  for (const ViewRow& row : rows) out += Row(row, frame.nowMs, kUnlimited) + "\n";
  return out + "\n";
}

std::string TopFormat::JsonFrame(const Snapshot& frame, const std::vector<ViewRow>& rows, SortKey sort) {
  std::string out = "{\"time\":" + Client::JsonQuote(Client::ClockNow()) +
                    ",\"service\":" + (frame.connected ? "\"connected\"" : "\"not reachable\"") +
                    ",\"clients\":" + (frame.clients < 0 ? "null" : std::to_string(frame.clients)) +
                    ",\"records_lost\":null,\"sort\":\"" + SortName(sort) + "\",\"rates\":{";
  for (int kind = 0; kind < kRateKinds; ++kind) {
    out += std::string(kind == 0 ? "" : ",") + "\"" + kRateNames[kind] + "\":[";
    for (size_t i = 0; i < frame.rates[kind].size(); ++i) {
      out += (i == 0 ? "" : ",") + std::to_string(frame.rates[kind][i]);
    }
    out += "]";
  }
  out += "},\"processes\":[";
  for (size_t i = 0; i < rows.size(); ++i) {
    const ProcessRow& p = rows[i].process;
    out += StringPrintf("%s{\"pid\":%d,\"ppid\":%d,\"uid\":%u,\"name\":%s,\"threads\":%u,", i == 0 ? "" : ",",
                        p.pid, p.ppid, p.uid, Client::JsonQuote(p.name).c_str(), p.threads);
    out += "\"rss_anon\":" + JsonSize(p.anon) + ",\"rss_file\":" + JsonSize(p.file) +
           ",\"rss_shmem\":" + JsonSize(p.shmem) + ",\"swap\":" + JsonSize(p.swap) +
           ",\"dmabuf\":" + JsonSize(p.dmabuf) +
           StringPrintf(",\"age_s\":%lld,\"state\":\"%s\"}",
                        static_cast<long long>(std::max<int64_t>(frame.nowMs - p.startMs, 0) / 1000),
                        StateName(rows[i].state));
  }
  return out + "]}";
}

const char* TopFormat::SortName(SortKey key) {
  for (const auto& s : kSortNames) {
    if (s.key == key) return s.name;
  }
  return "?";
}

bool TopFormat::ParseSortKey(const std::string& word, SortKey* key) {
  for (const auto& s : kSortNames) {
    if (word == s.name || (word.size() == 1 && word[0] == s.letter)) {
      *key = s.key;
      return true;
    }
  }
  return false;
}

}  // namespace Tavo::Cli
