#include "client/tavo_event_format.h"

#include <sys/time.h>
#include <time.h>

#include <cinttypes>
#include <cstdio>
#include <type_traits>
#include <utility>
#include <vector>

#include "util/tavo_event_names.h"

namespace Tavo::Client {

namespace {

template <typename T, typename = void>
struct HasHeader : std::false_type {};
template <typename T>
struct HasHeader<T, std::void_t<decltype(std::declval<T>().header)>> : std::true_type {};

const char* const kMemberNames[] = {"file", "anon", "swap", "shmem"};

std::string KindName(uint32_t kind) {
  if (kind == 1) return "process";
  if (kind == 2) return "thread";
  return std::to_string(kind);
}

std::string MemberName(int32_t member) {
  return member >= 0 && member < 4 ? kMemberNames[member] : std::to_string(member);
}

// Collects key/value pairs once and renders them either way.
class Line {
 public:
  Line(const std::string& clock, const std::string& event, uint32_t code)
      : clock(clock), event(event), code(code) {}

  Line& num(const char* key, int64_t value) { return add(key, std::to_string(value), false); }
  Line& unum(const char* key, uint64_t value) { return add(key, std::to_string(value), false); }
  Line& str(const char* key, const std::string& value) { return add(key, value, true); }

  std::string text() const {
    std::string out = clock + " " + event;
    for (const auto& f : fields) {
      out += ' ';
      out += f.key;
      out += '=';
      out += f.quoted ? TextValue(f.value) : f.value;
    }
    return out;
  }

  std::string json() const {
    std::string out = "{\"time\":" + JsonQuote(clock) + ",\"event\":" + JsonQuote(event) +
                      ",\"code\":" + std::to_string(code);
    for (const auto& f : fields) {
      out += ",\"";
      out += f.key;
      out += "\":";
      out += f.quoted ? JsonQuote(f.value) : f.value;
    }
    out += '}';
    return out;
  }

 private:
  struct Field {
    const char* key;
    std::string value;
    bool quoted;
  };

  Line& add(const char* key, std::string value, bool quoted) {
    fields.push_back({key, std::move(value), quoted});
    return *this;
  }

  // Names with blanks or control bytes are quoted so a line splits cleanly.
  static std::string TextValue(const std::string& value) {
    bool plain = !value.empty();
    for (unsigned char c : value) {
      if (c <= ' ' || c == '"' || c >= 0x7f) plain = false;
    }
    return plain ? value : JsonQuote(value);
  }

  std::string clock;
  std::string event;
  uint32_t code;
  std::vector<Field> fields;
};

Line Describe(const Event& event, const std::string& clock) {
  const uint32_t code = EventCode(event);
  return std::visit(
      [&](const auto& e) -> Line {
        using T = std::decay_t<decltype(e)>;
        if constexpr (std::is_same_v<T, DecodeError>) {
          Line line(clock, "decode_error", code);
          line.str("reason", e.reason == DecodeError::Reason::kTooShort ? "short" : "unknown")
              .unum("length", e.length);
          if (e.reason == DecodeError::Reason::kTooShort) line.unum("expected", e.expected);
          return line;
        } else {
          Line line(clock, Tavo::Bpf::EventName(code), code);
          if constexpr (std::is_same_v<T, TaskInitRecord>) {
            line.num("pid", e.pid).num("ppid", e.ppid).unum("uid", e.uid).str("comm", e.comm)
                .unum("threads", e.threadNum).num("file", e.rssFile).num("anon", e.rssAnon)
                .num("shmem", e.rssShmem).num("swap", e.rssSwap).num("start_time", e.startTime);
          } else if constexpr (std::is_same_v<T, RssStatRecord>) {
            line.num("pid", e.pid).str("member", MemberName(e.member)).num("size", e.size);
          } else if constexpr (std::is_same_v<T, TaskCreateRecord>) {
            line.num("pid", e.pid).num("ppid", e.ppid).unum("uid", e.uid).str("comm", e.comm)
                .str("kind", KindName(e.kind));
          } else if constexpr (std::is_same_v<T, TaskExitRecord>) {
            line.num("pid", e.pid).str("comm", e.comm).str("kind", KindName(e.kind));
          } else if constexpr (std::is_same_v<T, DmabufSizeRecord>) {
            line.num("pid", e.pid).unum("total", e.total);
          } else if constexpr (std::is_same_v<T, CgroupAttachRecord>) {
            line.num("pid", e.pid).num("tid", e.tid).str("comm", e.comm).num("root", e.dstRoot)
                .num("level", e.dstLevel).unum("cgroup_id", e.dstId).str("path", e.dstPath);
          } else if constexpr (std::is_same_v<T, FdUpdateRecord>) {
            line.num("pid", e.pid).num("fd", e.fd).unum("fd_count", e.fdCount).str("comm", e.comm);
          } else if constexpr (std::is_same_v<T, DmabufRecord>) {
            line.num("pid", e.pid).unum("size", e.size).unum("map_key", e.mapKey)
                .unum("buf_id", e.bufId);
          } else if constexpr (std::is_same_v<T, ProcessStartNotice>) {
            line.num("pid", e.pid).num("ppid", e.ppid).unum("uid", e.uid).str("comm", e.comm);
          } else if constexpr (std::is_same_v<T, ProcessExitNotice>) {
            line.num("pid", e.pid).str("comm", e.comm);
          } else if constexpr (std::is_same_v<T, ThreadCountNotice>) {
            line.num("pid", e.pid).num("ppid", e.ppid).unum("uid", e.uid)
                .unum("threads", e.threadNum).unum("old_threads", e.oldThreadNum);
          } else if constexpr (std::is_same_v<T, MemoryNotice>) {
            line.num("pid", e.pid).num("ppid", e.ppid).unum("uid", e.uid).str("comm", e.comm)
                .num("file", e.current[0]).num("anon", e.current[1]).num("swap", e.current[2])
                .num("shmem", e.current[3]).num("old_file", e.reported[0])
                .num("old_anon", e.reported[1]).num("old_swap", e.reported[2])
                .num("old_shmem", e.reported[3]);
          } else if constexpr (std::is_same_v<T, DmabufTotalNotice>) {
            line.num("pid", e.pid).unum("uid", e.uid).str("comm", e.comm).num("total", e.total);
          }
          if constexpr (HasHeader<T>::value) {
            line.unum("ts", e.header.ts);
          }
          return line;
        }
      },
      event);
}

}  // namespace

std::string FormatEventText(const Event& event, const std::string& clock) {
  return Describe(event, clock).text();
}

std::string FormatEventJson(const Event& event, const std::string& clock) {
  return Describe(event, clock).json();
}

std::string ClockNow() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char out[32];
  snprintf(out, sizeof(out), "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<long>(now.tv_usec / 1000));
  return out;
}

std::string JsonQuote(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c >= 0x7f) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  out += '"';
  return out;
}

}  // namespace Tavo::Client
