#include "tools/tavo_cli/tavoctl_top_model.h"

#include <algorithm>
#include <cctype>
#include <tuple>
#include <unordered_set>

namespace Tavo::Cli {

namespace {

using namespace Tavo::Client;

// Rate kinds in code order: start, end, threads, memory, dma-buf.
enum Kind { kStart, kEnd, kThreads, kMemory, kDmabuf };

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// The value a row sorts by (larger first), or its pid for kPid.
int64_t SortValue(const ProcessRow& row, SortKey key) {
  switch (key) {
    case SortKey::kMemory: return row.Resident();
    case SortKey::kDmabuf: return row.dmabuf;
    case SortKey::kThreads: return row.threads;
    case SortKey::kSwap: return row.swap;
    case SortKey::kPid: break;
  }
  return -static_cast<int64_t>(row.pid);
}

}  // namespace

int64_t ProcessRow::Resident() const {
  return std::max<int64_t>(anon, 0) + std::max<int64_t>(file, 0) + std::max<int64_t>(shmem, 0);
}

TopModel::TopModel(Clock clock) : clock(std::move(clock)) {}

TopModel::Entry* TopModel::Touch(int32_t pid, int64_t now) {
  auto [it, inserted] = table.try_emplace(pid);
  Entry& entry = it->second;
  if (inserted) {
    // Known only from a notice: read from /proc once it has had time to exec.
    entry.row.pid = pid;
    entry.row.startMs = now;
    entry.identified = false;
  }
  return entry.endedAtMs >= 0 ? nullptr : &entry;
}

void TopModel::Count(int kind, int64_t now) {
  const int64_t second = now / 1000;
  RateSlot& slot = rates[static_cast<size_t>(second % static_cast<int64_t>(rates.size()))];
  if (slot.second != second) {
    slot.second = second;
    slot.counts.fill(0);
  }
  ++slot.counts[kind];
}

void TopModel::Apply(const Event& event) {
  const int64_t now = clock();
  std::lock_guard<std::mutex> guard(lock);
  if (const auto* start = std::get_if<ProcessStartNotice>(&event)) {
    Count(kStart, now);
    auto it = table.find(start->pid);
    // A row left by an ended process of the same pid gives way.
    if (it != table.end() && it->second.endedAtMs >= 0) table.erase(it);
    Entry* entry = Touch(start->pid, now);
    if (!entry->identified) {
      entry->row.ppid = start->ppid;
      entry->row.uid = start->uid;
      entry->row.name = start->comm;
      entry->row.threads = 1;
    }
    entry->newUntilMs = now + kFreshMs;
  } else if (const auto* end = std::get_if<ProcessExitNotice>(&event)) {
    Count(kEnd, now);
    auto it = table.find(end->pid);
    if (it == table.end() || it->second.endedAtMs >= 0) return;
    it->second.endedAtMs = now;
    // The start notice named the parent; the end names the process itself.
    if (!it->second.identified) it->second.row.name = end->comm;
  } else if (const auto* threads = std::get_if<ThreadCountNotice>(&event)) {
    Count(kThreads, now);
    if (Entry* entry = Touch(threads->pid, now)) entry->row.threads = threads->threadNum;
  } else if (const auto* memory = std::get_if<MemoryNotice>(&event)) {
    Count(kMemory, now);
    Entry* entry = Touch(memory->pid, now);
    if (entry == nullptr) return;
    if (entry->row.name.empty()) entry->row.name = memory->comm;
    // Notice order: file, anon, swap, shmem. A size that has not moved since
    // the service's previous notice is no news; the service starts a forked
    // child at zero, so taking it would wipe what /proc said.
    int64_t* sizes[] = {&entry->row.file, &entry->row.anon, &entry->row.swap, &entry->row.shmem};
    for (size_t i = 0; i < 4; ++i) {
      if (*sizes[i] < 0 || memory->current[i] != memory->reported[i]) *sizes[i] = memory->current[i];
    }
  } else if (const auto* dmabuf = std::get_if<DmabufTotalNotice>(&event)) {
    Count(kDmabuf, now);
    if (Entry* entry = Touch(dmabuf->pid, now)) entry->row.dmabuf = dmabuf->total;
  } else {
    return;
  }
  changed = true;
}

void TopModel::Reseed(const std::function<std::vector<ProcessRow>()>& scan) {
  std::lock_guard<std::mutex> guard(lock);
  std::unordered_set<int32_t> seen;
  for (ProcessRow& row : scan()) {
    seen.insert(row.pid);
    auto [it, inserted] = table.try_emplace(row.pid);
    Entry& entry = it->second;
    // An ended row stays ended: the scan saw a zombie or read just before the end.
    if (!inserted) row.dmabuf = entry.row.dmabuf;
    entry.row = std::move(row);
    entry.identified = true;
  }
  for (auto it = table.begin(); it != table.end();) {
    // Gone while nobody told us (the service was away).
    it = it->second.endedAtMs < 0 && seen.count(it->first) == 0 ? table.erase(it) : std::next(it);
  }
  changed = true;
}

std::vector<int32_t> TopModel::TakeUnidentified(size_t most) {
  const int64_t now = clock();
  std::vector<int32_t> pids;
  std::lock_guard<std::mutex> guard(lock);
  for (auto& [pid, entry] : table) {
    if (pids.size() >= most) break;
    if (entry.identified || entry.endedAtMs >= 0 || now - entry.row.startMs < kIdentifyAfterMs) continue;
    entry.identified = true;
    pids.push_back(pid);
  }
  return pids;
}

void TopModel::Identify(int32_t pid, const ProcessRow* read) {
  const int64_t now = clock();
  std::lock_guard<std::mutex> guard(lock);
  auto it = table.find(pid);
  if (it == table.end() || it->second.endedAtMs >= 0) return;
  Entry& entry = it->second;
  if (read == nullptr) {
    entry.endedAtMs = now;  // no end notice came, but it is gone
  } else {
    const int64_t dmabuf = entry.row.dmabuf;
    const int64_t startMs = entry.row.startMs;
    entry.row = *read;
    entry.row.dmabuf = dmabuf;
    entry.row.startMs = startMs;
  }
  changed = true;
}

void TopModel::SetConnected(bool up) {
  std::lock_guard<std::mutex> guard(lock);
  changed = changed || connected != up;
  connected = up;
}

void TopModel::SetClients(int count) {
  std::lock_guard<std::mutex> guard(lock);
  changed = changed || clients != count;
  clients = count;
}

bool TopModel::Changed() const {
  std::lock_guard<std::mutex> guard(lock);
  return changed;
}

Snapshot TopModel::Take() {
  Snapshot frame;
  frame.nowMs = clock();
  const int64_t now = frame.nowMs;
  std::lock_guard<std::mutex> guard(lock);
  frame.connected = connected;
  frame.clients = clients;
  frame.rows.reserve(table.size());
  for (auto it = table.begin(); it != table.end();) {
    const Entry& entry = it->second;
    if (entry.endedAtMs >= 0 && now - entry.endedAtMs >= kFreshMs) {
      it = table.erase(it);
      continue;
    }
    const RowState state = entry.endedAtMs >= 0     ? RowState::kEnded
                           : now < entry.newUntilMs ? RowState::kNew
                                                    : RowState::kRunning;
    frame.rows.push_back({entry.row, state});
    ++it;
  }
  // The complete seconds before this one, oldest first.
  const int64_t current = now / 1000;
  for (int kind = 0; kind < kRateKinds; ++kind) {
    std::vector<uint32_t>& line = frame.rates[kind];
    line.assign(kRateSeconds, 0);
    for (int i = 0; i < kRateSeconds; ++i) {
      const int64_t second = current - kRateSeconds + i;
      if (second < 0) continue;
      const RateSlot& slot = rates[static_cast<size_t>(second % static_cast<int64_t>(rates.size()))];
      if (slot.second == second) line[i] = slot.counts[kind];
    }
  }
  changed = false;
  return frame;
}

std::vector<ViewRow> TopModel::Arrange(const std::vector<ViewRow>& rows, SortKey key,
                                       const std::string& filter) {
  std::vector<ViewRow> out;
  const std::string wanted = Lower(filter);
  for (const ViewRow& row : rows) {
    if (wanted.empty() || Lower(row.process.name).find(wanted) != std::string::npos) out.push_back(row);
  }
  std::sort(out.begin(), out.end(), [key](const ViewRow& a, const ViewRow& b) {
    return std::make_tuple(-SortValue(a.process, key), a.process.pid) <
           std::make_tuple(-SortValue(b.process, key), b.process.pid);
  });
  return out;
}

}  // namespace Tavo::Cli
