// The process table behind `tavoctl top`: seeded from a /proc scan, kept
// current by the service's notices (50001..50005), with per-second notice
// counts for the last minute. No terminal and no /proc access here: the
// caller hands in scans and reads, so the table can be driven in tests.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/tavo_event_decoder.h"

namespace Tavo::Cli {

// One process as the table shows it. Sizes are bytes; -1 is unknown.
struct ProcessRow {
  int32_t pid = 0;
  int32_t ppid = 0;
  uint32_t uid = 0;
  std::string name;
  uint32_t threads = 0;
  int64_t anon = -1;
  int64_t file = -1;
  int64_t shmem = -1;
  int64_t swap = -1;
  int64_t dmabuf = -1;
  int64_t startMs = 0;  // on the model's clock

  int64_t Resident() const;  // anon + file + shmem, unknown parts as 0
};

enum class RowState { kRunning, kNew, kEnded };

struct ViewRow {
  ProcessRow process;
  RowState state = RowState::kRunning;
};

enum class SortKey { kMemory, kDmabuf, kThreads, kPid, kSwap };

// The notice kinds counted per second, in code order 50001..50005.
inline constexpr int kRateKinds = 5;
inline constexpr int kRateSeconds = 60;

// Everything one frame shows, taken under the lock at one moment.
struct Snapshot {
  int64_t nowMs = 0;
  bool connected = false;
  int clients = -1;  // -1 unknown
  std::vector<ViewRow> rows;  // in no particular order
  // Per kind, the last kRateSeconds complete seconds, oldest first.
  std::array<std::vector<uint32_t>, kRateKinds> rates;
};

class TopModel {
 public:
  using Clock = std::function<int64_t()>;  // monotonic milliseconds
  // How long a started process stays highlighted and an ended one dimmed.
  static constexpr int64_t kFreshMs = 2000;
  // A process from a start notice is read from /proc once it is this old:
  // the notice carries the parent's name, an exec comes right after fork.
  static constexpr int64_t kIdentifyAfterMs = 500;

  explicit TopModel(Clock clock);

  // A decoded event from the service (socket thread). Notices only; other
  // events are ignored.
  void Apply(const Client::Event& event);
  // Replaces the table with a /proc scan, run under the lock so that no
  // notice lands between the scan and the merge: anything the scan missed
  // comes as a notice afterwards. Ended rows stay until their time is up;
  // dma-buf totals survive for processes that are still there.
  void Reseed(const std::function<std::vector<ProcessRow>()>& scan);
  // Pids of processes known only from notices and old enough to be read
  // from /proc; each is handed out once.
  std::vector<int32_t> TakeUnidentified(size_t most);
  // The /proc view of one of them; nullptr when it could not be read (gone).
  void Identify(int32_t pid, const ProcessRow* read);
  void SetConnected(bool up);
  void SetClients(int count);
  // The frame as of now; drops ended rows whose time is up.
  Snapshot Take();
  // True when something changed since the last Take().
  bool Changed() const;

  // Filters by name (case-insensitive substring; empty keeps all) and sorts:
  // pid ascending, the rest largest first, ties by pid.
  static std::vector<ViewRow> Arrange(const std::vector<ViewRow>& rows, SortKey key,
                                      const std::string& filter);

 private:
  struct Entry {
    ProcessRow row;
    int64_t newUntilMs = 0;
    int64_t endedAtMs = -1;
    bool identified = true;  // false until read from /proc or a memory notice
  };
  struct RateSlot {
    int64_t second = -1;
    std::array<uint32_t, kRateKinds> counts{};
  };

  Entry* Touch(int32_t pid, int64_t now);  // nullptr for an ended row
  void Count(int kind, int64_t now);

  Clock clock;
  mutable std::mutex lock;
  std::unordered_map<int32_t, Entry> table;
  std::array<RateSlot, kRateSeconds + 1> rates{};
  bool connected = false;
  int clients = -1;
  bool changed = true;
};

}  // namespace Tavo::Cli
