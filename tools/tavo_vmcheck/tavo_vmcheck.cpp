// tavo_vmcheck: end-to-end check of tavo_bpfd on the running kernel, for the
// kernel-matrix VMs (scripts/vmtest.sh). Needs root, bpffs and tracefs.
//   tavo_vmcheck [--bpfd PATH] [--exerciser PATH] [--log PATH] [--prop name=value]...
// Starts the daemon (with the properties given, as tavo_bpfd --prop sets
// them), subscribes as a client and checks:
//   rows      every attach-table row attached, or skipped by version exactly
//             as the tables say for the version the daemon chooses rows by
//             (the kernel's, or "ro.kernel.version" and
//             "persist.sys.tavo_bpf.dmabuf_rows" when given); a kprobe row
//             may fail only where this kernel lacks the function (not in
//             /proc/kallsyms)
//   doctor    `tavoctl doctor` predicted for each row what the daemon did
//             (ok: attached, skipped: skipped, missing: failed), and its
//             exit status says whether rows are missing
//   life      a child's fork, thread, memory and exit records and notices
//   exits     children ending in several threads at once: one kind-1 exit
//             record and one 50002 each
//   openfd    a child opening and closing N descriptors moves its count in
//             the open-fd map by N and back
//   dmabuf    tavo_dmabuf_exerciser's buffers (vgem, and the system dma-buf
//             heap and udmabuf where the kernel has them) mapped and queued
//             to vivid's capture nodes (vmap and attach): every record type
//             the attached rows can send (7 to 14) with the right process,
//             inode and size, and each process's 50005 totals up by the
//             size and back to 0 for every use
// Prints "vmcheck: PASS|FAIL <check>[: detail]" per check, notes, and
//   vmcheck: rows attached A, skipped by version V, failed X; dma-buf notices N; dma-buf types T...
// (T: the dma-buf record types that reached the client, ascending, or
// "none"). Exit status 0 when every check passed.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bpf/tavo_bpf_attach_report.h"
#include "bpf/tavo_bpf_attach_tables.h"
#include "bpf/tavo_bpf_map.h"
#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"
#include "bpf/tavo_bpf_row_check.h"
#include "client/tavo_client.h"
#include "task/tavo_proc_reader.h"
#include "tests/support/tavo_harness.h"
#include "util/tavo_options.h"
#include "tools/tavo_vmcheck/tavo_spinning_pair.h"
#include "util/tavo_event_names.h"
#include "util/tavo_service_contract.h"

using android::base::StringPrintf;
using android::base::unique_fd;
using Tavo::Bpf::RawEventName;
using namespace Tavo::Client;

namespace {

using Tavo::Bpf::kBpfPinDir;
constexpr const char* kNormal = Tavo::Bpf::kNormalObject;
constexpr const char* kGpl = Tavo::Bpf::kGplObject;

struct Result {
  int passed = 0;
  int failed = 0;
  void Report(const std::string& check, const std::string& failure, const std::string& detail = "") {
    if (failure.empty()) {
      ++passed;
      printf("vmcheck: PASS %s%s%s\n", check.c_str(), detail.empty() ? "" : ": ", detail.c_str());
    } else {
      ++failed;
      printf("vmcheck: FAIL %s: %s\n", check.c_str(), failure.c_str());
    }
    fflush(stdout);
  }
};

void Note(const std::string& text) {
  printf("vmcheck: note: %s\n", text.c_str());
  fflush(stdout);
}

// Every event the client received, in order.
class Collector {
 public:
  void Add(const Event& event) {
    std::lock_guard<std::mutex> guard(lock_);
    events_.push_back(event);
    cond_.notify_all();
  }
  // Waits until done(events) holds or the time runs out; returns a copy.
  std::vector<Event> WaitFor(const std::function<bool(const std::vector<Event>&)>& done, int ms) {
    std::unique_lock<std::mutex> guard(lock_);
    cond_.wait_for(guard, std::chrono::milliseconds(ms), [&] { return done(events_); });
    return events_;
  }
  std::vector<Event> Settle(int ms) {
    return WaitFor([](const std::vector<Event>&) { return false; }, ms);
  }

 private:
  std::mutex lock_;
  std::condition_variable cond_;
  std::vector<Event> events_;
};

template <typename T>
std::vector<T> All(const std::vector<Event>& events, const std::function<bool(const T&)>& keep) {
  std::vector<T> out;
  for (const Event& e : events) {
    const T* v = std::get_if<T>(&e);
    if (v != nullptr && keep(*v)) out.push_back(*v);
  }
  return out;
}

template <typename T>
size_t Count(const std::vector<Event>& events, const std::function<bool(const T&)>& keep) {
  return All<T>(events, keep).size();
}

bool Wait(const std::function<bool()>& done, int ms) {
  return tavo_test::WaitFor(done, ms, std::chrono::milliseconds(50));
}

std::set<std::string> KernelFunctions() { return Tavo::Bpf::TavoProcReader().KernelFunctions(); }

// ---- rows ---------------------------------------------------------------

struct RowCounts {
  int attached = 0;
  int skipped = 0;
  int failed = 0;
  std::set<std::string> attachedProgs;  // "<object>/<progName>"
};

// What the daemon's attach report (tavo_bpfd --attach-report) says of each
// row, checked against the tables for the version the rows were chosen by.
RowCounts CheckRows(const std::string& reportPath, int rowsVersion, Result* result) {
  RowCounts counts;
  std::string text;
  // The programs are enabled (what main waited for) only after every row
  // was tried; the report is written right then.
  Wait([&] { return android::base::ReadFileToString(reportPath, &text); }, 10000);
  std::map<std::string, Tavo::Bpf::BpfAttachVerdict> verdicts;
  for (const auto& row : Tavo::Bpf::ParseAttachReport(text)) verdicts[row.object + "/" + row.progName] = row.verdict;

  const std::set<std::string> functions = KernelFunctions();
  std::string failure;
  int rows = 0;
  for (const auto* table : {&Tavo::Bpf::PROG_EVENT_MAP, &Tavo::Bpf::PROG_GPL_EVENT_MAP}) {
    for (const auto& [object, byType] : *table) {
      for (const auto& [type, list] : byType) {
        for (const auto& row : list) {
          ++rows;
          const std::string name = object + "/" + row[0];
          const bool applies = Tavo::Bpf::CheckBpfCompatibility(row[3], rowsVersion);
          auto found = verdicts.find(name);
          if (found == verdicts.end()) {
            failure += " " + name + " is not in the attach report;";
            continue;
          }
          const Tavo::Bpf::BpfAttachVerdict verdict = found->second;
          const bool skipped = verdict == Tavo::Bpf::BpfAttachVerdict::kSkipped;
          if (skipped) ++counts.skipped;
          if (verdict == Tavo::Bpf::BpfAttachVerdict::kAttached) {
            ++counts.attached;
            counts.attachedProgs.insert(name);
          }
          if (skipped == applies) {
            failure += StringPrintf(" %s (rule %s) was %s;", name.c_str(), row[3].c_str(),
                                    applies ? "skipped" : "not skipped");
          }
          if (verdict != Tavo::Bpf::BpfAttachVerdict::kFailed) continue;
          ++counts.failed;
          if (type != 0 && functions.count(row[1]) == 0) {
            Note("row failed: " + name + " (" + Tavo::Bpf::AttachTypeWord(type) + " on " + row[1] +
                 ", which this kernel does not have)");
          } else {
            failure += " " + name + " failed to attach to " + row[1] + ", which this kernel has;";
          }
        }
      }
    }
  }
  result->Report("rows", failure,
                 StringPrintf("%d rows: %d attached, %d skipped by version, %d failed", rows, counts.attached,
                              counts.skipped, counts.failed));
  return counts;
}

// ---- doctor ---------------------------------------------------------------

// Runs `tavoctl doctor` beside the daemon and compares its verdict on each
// row with the daemon's attach report.
void CheckDoctor(const std::string& tavoctl, const std::vector<std::string>& props, const std::string& reportPath,
                 Result* result) {
  using Tavo::Bpf::TavoBpfRowCheck;
  std::string text;
  android::base::ReadFileToString(reportPath, &text);
  const Tavo::Bpf::BpfAttachReport report = Tavo::Bpf::ParseAttachReport(text);
  std::string command = tavoctl + " doctor";
  for (const std::string& prop : props) command += " " + prop;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
  if (!pipe) return result->Report("doctor", "cannot run " + tavoctl);
  std::string out;
  char buf[4096];
  for (size_t n; (n = fread(buf, 1, sizeof(buf), pipe.get())) > 0;) out.append(buf, n);
  const int status = pclose(pipe.release());
  const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;

  std::map<std::string, Tavo::Bpf::BpfRowVerdict> predicted;  // "<object>/<progName>"
  for (const std::string& line : android::base::Split(out, "\n")) {
    const size_t blank = line.find(' ');
    const size_t name = line.find_first_not_of(' ', blank);
    Tavo::Bpf::BpfRowVerdict verdict;
    if (name == std::string::npos || !TavoBpfRowCheck::ParseVerdictWord(line.substr(0, blank), &verdict)) continue;
    const std::string row = line.substr(name, line.find(' ', name) - name);
    if (row.find('/') != std::string::npos) predicted[row] = verdict;
  }
  std::string failure;
  int missing = 0;
  for (const Tavo::Bpf::BpfAttachResult& row : report) {
    const std::string name = row.object + "/" + row.progName;
    auto found = predicted.find(name);
    if (found == predicted.end()) {
      failure += " " + name + " is not in doctor's report;";
      continue;
    }
    missing += found->second == Tavo::Bpf::BpfRowVerdict::kMissing;
    if (!TavoBpfRowCheck::Agrees(found->second, row.verdict)) {
      failure += StringPrintf(" %s: doctor said %s, the daemon %s;", name.c_str(),
                              TavoBpfRowCheck::VerdictWord(found->second), Tavo::Bpf::AttachVerdictWord(row.verdict));
    }
    predicted.erase(found);
  }
  for (const auto& [name, verdict] : predicted) failure += " " + name + " is not in the attach report;";
  if (report.empty()) failure += " no attach report;";
  if (exitCode != (missing > 0 ? 1 : 0)) {
    failure += StringPrintf(" exit status %d with %d rows missing;", exitCode, missing);
  }
  if (!failure.empty()) fprintf(stderr, "%s", out.c_str());
  result->Report("doctor", failure,
                 StringPrintf("%zu rows as the daemon attached them, %d missing, exit %d", report.size(), missing,
                              exitCode));
}

// ---- process life cycle -----------------------------------------------------

void* WaitOnPipe(void* fd) {
  char byte;
  while (read(static_cast<unique_fd*>(fd)->get(), &byte, 1) > 0) {
  }
  return nullptr;
}

constexpr int kLifeThreads = 12;  // a thread-count notice needs 11 more threads
constexpr size_t kLifeBytes = 8u << 20;

void CheckLife(Collector& events, Result* result) {
  unique_fd holdRead, holdWrite;
  if (!android::base::Pipe(&holdRead, &holdWrite)) return result->Report("life", "pipe failed");
  const pid_t child = fork();
  if (child == 0) {
    holdWrite.reset();
    prctl(PR_SET_NAME, "tavo_vm_life");
    usleep(3300 * 1000);  // past the service's settling time for notices
    pthread_t threads[kLifeThreads];
    for (pthread_t& t : threads) {
      if (pthread_create(&t, nullptr, WaitOnPipe, &holdRead) != 0) _exit(1);
    }
    char* p = static_cast<char*>(mmap(nullptr, kLifeBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (p == MAP_FAILED) _exit(1);
    for (size_t i = 0; i < kLifeBytes; i += 4096) p[i] = 1;
    usleep(500 * 1000);
    _exit(0);  // ends every thread at once
  }
  holdRead.reset();
  int status = 0;
  waitpid(child, &status, 0);
  holdWrite.reset();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return result->Report("life", "the child failed");

  auto mine = [child](const auto& e) { return e.pid == child; };
  std::vector<Event> seen = events.WaitFor(
      [&](const std::vector<Event>& ev) { return Count<ProcessExitNotice>(ev, mine) > 0; }, 30000);
  seen = events.Settle(1000);  // a second end notice would show by now
  std::string failure;
  auto expect = [&failure](bool ok, const std::string& what) {
    if (!ok) failure += " " + what + ";";
  };
  const auto created = All<TaskCreateRecord>(seen, mine);
  expect(std::count_if(created.begin(), created.end(), [](auto& r) { return r.kind == 1; }) == 1,
         "one kind-1 creation record");
  expect(std::count_if(created.begin(), created.end(), [](auto& r) { return r.kind == 2; }) == kLifeThreads,
         StringPrintf("%d kind-2 creation records", kLifeThreads));
  const auto ended = All<TaskExitRecord>(seen, mine);
  expect(std::count_if(ended.begin(), ended.end(), [](auto& r) { return r.kind == 1; }) == 1,
         "one kind-1 exit record");
  expect(Count<ProcessStartNotice>(seen, mine) == 1, "one 50001");
  const auto threads = All<ThreadCountNotice>(seen, mine);
  expect(std::any_of(threads.begin(), threads.end(),
                     [](auto& n) { return n.threadNum >= n.oldThreadNum + kLifeThreads - 1; }),
         "a 50003 for the new threads");
  const auto memory = All<MemoryNotice>(seen, mine);
  expect(std::any_of(memory.begin(), memory.end(),
                     [](auto& n) { return n.current[1] >= static_cast<int64_t>(kLifeBytes); }),
         "a 50004 with the touched memory");
  const auto exits = All<ProcessExitNotice>(seen, mine);
  expect(exits.size() == 1 && exits[0].comm == "tavo_vm_life",
         StringPrintf("exactly one 50002 named tavo_vm_life (got %zu)", exits.size()));
  result->Report("life", failure,
                 StringPrintf("pid %d: %zu creation, %zu exit records, %zu 50003, %zu 50004, one 50002", child,
                              created.size(), ended.size(), threads.size(), memory.size()));
}

constexpr int kExitChildren = 40;

// Each child is killed while its two threads spin on two CPUs, so both end
// at once: still one kind-1 exit record and one 50002.
void CheckExits(Collector& events, Result* result) {
  std::set<pid_t> children;
  for (int i = 0; i < kExitChildren; ++i) {
    const pid_t child = Tavo::VmCheck::SpinningPair();
    if (child < 0) return result->Report("exits", "no child with two running threads");
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    children.insert(child);
  }
  auto ours = [&children](const auto& e) { return children.count(e.pid) != 0; };
  events.WaitFor([&](const std::vector<Event>& ev) { return Count<ProcessExitNotice>(ev, ours) >= children.size(); },
                 30000);
  const std::vector<Event> seen = events.Settle(1000);
  std::map<pid_t, int> notices, records;
  for (const auto& n : All<ProcessExitNotice>(seen, ours)) ++notices[n.pid];
  for (const auto& r : All<TaskExitRecord>(seen, ours)) records[r.pid] += r.kind == 1;
  std::string failure;
  for (pid_t pid : children) {
    if (notices[pid] != 1 || records[pid] != 1)
      failure += StringPrintf(" pid %d: %d 50002, %d kind-1 exit records;", pid, notices[pid], records[pid]);
  }
  result->Report("exits", failure, StringPrintf("%d children killed in two threads, one end each", kExitChildren));
}

// ---- open descriptors -------------------------------------------------------

constexpr int kOpenFds = 40;

void CheckOpenFds(const RowCounts& rows, const std::set<std::string>& functions, Result* result) {
  if (rows.attachedProgs.count(std::string(kNormal) + "/enter_fd_install") == 0 ||
      rows.attachedProgs.count(std::string(kNormal) + "/return_filp_close") == 0) {
    return result->Report("openfd", "", "skipped: the fd rows are not attached");
  }
  auto map = Tavo::Bpf::TavoBpfMap<int32_t, tavo_open_fd_value>::OpenPinned(
      Tavo::Bpf::PinnedMapPath(kBpfPinDir, kNormal, Tavo::Bpf::kOpenFdMap));
  if (!map.ok()) return result->Report("openfd", "open_fd_caller_map is not pinned");
  unique_fd cmdRead, cmdWrite, ackRead, ackWrite;
  if (!android::base::Pipe(&cmdRead, &cmdWrite) || !android::base::Pipe(&ackRead, &ackWrite))
    return result->Report("openfd", "pipe failed");
  const pid_t child = fork();
  if (child == 0) {
    cmdWrite.reset();
    ackRead.reset();
    std::vector<unique_fd> fds;
    char c = 'r';
    while (write(ackWrite.get(), &c, 1) == 1 && read(cmdRead.get(), &c, 1) == 1) {
      if (c == 'o')
        for (int i = 0; i < kOpenFds; ++i) fds.emplace_back(open("/dev/null", O_RDONLY));
      if (c == 'c') fds.clear();
    }
    _exit(0);
  }
  cmdRead.reset();
  ackWrite.reset();
  auto step = [&](char c) {
    char r;
    if (c != 0 && write(cmdWrite.get(), &c, 1) != 1) return false;
    return read(ackRead.get(), &r, 1) == 1;
  };
  auto count = [&]() -> int64_t {
    auto value = map->Lookup(child);
    return value.ok() ? static_cast<int64_t>(value->fd_count) : 0;
  };
  int64_t before = -1, opened = -1, closed = -1;
  if (step(0)) before = count();
  if (step('o')) opened = count();
  if (step('c')) closed = count();
  cmdWrite.reset();
  ackRead.reset();
  waitpid(child, nullptr, 0);

  const std::string seen =
      StringPrintf("count %lld, %lld after %d opens, %lld after closing them", static_cast<long long>(before),
                   static_cast<long long>(opened), kOpenFds, static_cast<long long>(closed));
  std::string failure;
  if (opened - before != kOpenFds) failure = seen;
  // Since filp_flush came in, close(2) no longer passes filp_close (only
  // exit and close_range do), so the kretprobe row cannot see it.
  const bool closeBypassesFilpClose = functions.count("filp_flush") != 0;
  if (closeBypassesFilpClose) {
    if (closed != opened) failure = seen;
    Note("open-fd counts: close(2) does not reach filp_close on this kernel (it has filp_flush): the count "
         "rises by N and stays; the row on filp_close cannot see those closes");
  } else if (closed != before) {
    failure = seen;
  }
  result->Report("openfd", failure, StringPrintf("pid %d: ", child) + seen);
}

// ---- dma-buf -----------------------------------------------------------------

// A use of a buffer, as the exerciser names it: the record taking it, the
// one dropping it, and the rows (program-name prefixes) that send them.
struct UseKind {
  const char* word;
  uint32_t take, drop;
  const char* takeRow;
  const char* dropRow;
};
constexpr UseKind kUseKinds[] = {
    {"mapped", TAVO_EVENT_DMABUF_MMAP, TAVO_EVENT_DMABUF_MUNMAP, "enter_dma_buf_mmap_internal_", "enter___vm_munmap"},
    {"vmapped", TAVO_EVENT_DMABUF_VMAP, TAVO_EVENT_DMABUF_VUNMAP, "enter_dma_buf_vmap_", "enter_dma_buf_vunmap_"},
    {"attached", TAVO_EVENT_DMABUF_ATTACH, TAVO_EVENT_DMABUF_DETACH, "enter_dma_buf_attach_", "enter_dma_buf_detach_"},
};

struct ExercisedBuffer {
  pid_t exporter = 0;
  uint64_t inode = 0;
  uint64_t size = 0;
};

struct BufferUse {
  std::string buffer;
  const UseKind* kind = nullptr;
  pid_t pid = 0;
};

bool AnyAttached(const RowCounts& rows, const std::string& prefix) {
  for (const std::string& name : rows.attachedProgs)
    if (android::base::StartsWith(name, std::string(kGpl) + "/" + prefix)) return true;
  return false;
}

// vivid's capture nodes by what its allocator does with an imported
// buffer: instance N ("vivid-00N-vid-cap") uses entry N of the module's
// allocators list, 0 (vmalloc, the default) vmaps it, 1 (dma-contig)
// attaches it.
void FindVivid(std::vector<std::string>* vmap, std::vector<std::string>* attach) {
  std::string text;
  android::base::ReadFileToString("/sys/module/vivid/parameters/allocators", &text);
  const std::vector<std::string> allocators = android::base::Split(android::base::Trim(text), ",");
  for (int node = 0; node < 64; ++node) {
    size_t instance = 0;
    if (!android::base::ReadFileToString(StringPrintf("/sys/class/video4linux/video%d/name", node), &text) ||
        sscanf(text.c_str(), "vivid-%zu-vid-cap", &instance) != 1)
      continue;
    const bool contig = instance < allocators.size() && allocators[instance] == "1";
    (contig ? attach : vmap)->push_back(StringPrintf("/dev/video%d", node));
  }
}

// The dma-buf record types (7 to 14) among the events.
std::set<uint32_t> DmabufTypes(const std::vector<Event>& events) {
  std::set<uint32_t> types;
  for (const auto& r : All<DmabufRecord>(events, [](auto&) { return true; })) types.insert(r.header.type);
  return types;
}

// " 8 9 10", or " none".
std::string TypeList(const std::set<uint32_t>& types) {
  std::string out;
  for (uint32_t type : types) out += StringPrintf(" %u", type);
  return out.empty() ? " none" : out;
}

void CheckDmabuf(Collector& events, const RowCounts& rows, const std::string& exerciser, Result* result) {
  constexpr const char* kCard = "/dev/dri/card0";
  constexpr const char* kHeap = "/dev/dma_heap/system";
  constexpr const char* kUdmabuf = "/dev/udmabuf";
  if (access(kCard, R_OK | W_OK) != 0) return result->Report("dmabuf", "no vgem device at /dev/dri/card0");
  std::string failure;
  auto expect = [&failure](bool ok, const std::string& what) {
    if (!ok) failure += " " + what + ";";
  };
  std::vector<std::string> args{exerciser, "--hold"};
  std::vector<std::string> vmaps, attaches;
  FindVivid(&vmaps, &attaches);
  expect(!vmaps.empty() || !AnyAttached(rows, "enter_dma_buf_vmap_"), "no vivid capture node with allocator 0");
  expect(!attaches.empty() || !AnyAttached(rows, "enter_dma_buf_attach_"), "no vivid capture node with allocator 1");
  for (const std::string& device : vmaps) args.insert(args.end(), {"--vmap", device});
  for (const std::string& device : attaches) args.insert(args.end(), {"--attach", device});
  std::vector<std::string> names{"A", "B"};  // the buffers the exerciser is to make
  if (access(kHeap, R_OK) == 0) {
    args.insert(args.end(), {"--heap", kHeap});
    names.push_back("H");
  }
  if (access(kUdmabuf, R_OK | W_OK) == 0) {
    args.insert(args.end(), {"--udmabuf", kUdmabuf});
    names.push_back("U");
  }
  args.push_back(kCard);
  for (const UseKind& kind : kUseKinds) {
    expect(AnyAttached(rows, kind.takeRow) == AnyAttached(rows, kind.dropRow),
           StringPrintf("the rows of %s and %s attach together", RawEventName(kind.take), RawEventName(kind.drop)));
  }

  // The exerciser and its child stay until their input closes: a process's
  // exit purges its dma-buf entries, and the totals are to come back to 0
  // because it let go, not because it went.
  unique_fd outRead, outWrite, inRead, inWrite;
  if (!android::base::Pipe(&outRead, &outWrite) || !android::base::Pipe(&inRead, &inWrite))
    return result->Report("dmabuf", "pipe failed");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outWrite.get(), STDOUT_FILENO);
    dup2(inRead.get(), STDIN_FILENO);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    execv(exerciser.c_str(), argv.data());
    _exit(127);
  }
  outWrite.reset();
  inRead.reset();
  std::string text;
  android::base::ReadFdToString(outRead.get(), &text);
  outRead.reset();
  auto finish = [&] {
    inWrite.reset();
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  };

  std::map<std::string, ExercisedBuffer> buffers;
  std::vector<BufferUse> uses;
  for (const std::string& line : android::base::Split(text, "\n")) {
    char word[16] = {}, name[8] = {};
    int who = 0;
    unsigned long long inode = 0, size = 0;
    if (sscanf(line.c_str(), "buffer %7s %d %llu %llu", name, &who, &inode, &size) == 4) {
      buffers[name] = ExercisedBuffer{who, inode, size};
    } else if (sscanf(line.c_str(), "%15s %7s %d", word, name, &who) == 3) {
      for (const UseKind& kind : kUseKinds)
        if (strcmp(word, kind.word) == 0) uses.push_back({name, &kind, who});
    }
  }
  // The totals each process is to report, in order: every use whose rows
  // both attached charges the buffer's size and gives it back.
  std::map<pid_t, std::vector<int64_t>> expectedTotals;
  for (const BufferUse& use : uses) {
    if (!AnyAttached(rows, use.kind->takeRow)) continue;
    expectedTotals[use.pid].push_back(static_cast<int64_t>(buffers[use.buffer].size));
    expectedTotals[use.pid].push_back(0);
  }
  auto totalsOf = [](const std::vector<Event>& ev, pid_t p) {
    std::vector<int64_t> totals;
    for (const auto& n : All<DmabufTotalNotice>(ev, [p](const DmabufTotalNotice& t) { return t.pid == p; }))
      totals.push_back(n.total);
    return totals;
  };
  auto totalsBack = [&](const std::vector<Event>& ev) {
    for (const auto& [p, totals] : expectedTotals)
      if (totalsOf(ev, p).size() < totals.size()) return false;
    return true;
  };
  events.WaitFor(totalsBack, expectedTotals.empty() ? 2000 : 30000);
  const std::vector<Event> seen = events.Settle(1000);
  if (!finish() || !std::all_of(names.begin(), names.end(), [&](auto& n) { return buffers.count(n) != 0; }))
    return result->Report("dmabuf", "the exerciser failed:" + failure + " it printed: " +
                                        android::base::Join(android::base::Split(android::base::Trim(text), "\n"), " | "));

  std::set<pid_t> pids;
  for (const BufferUse& use : uses) pids.insert(use.pid);
  const int notices = static_cast<int>(Count<DmabufTotalNotice>(seen, [&](auto& n) { return pids.count(n.pid); }));
  const bool releaseRow = AnyAttached(rows, "enter_dma_buf_file_release_");
  const bool setupRow = AnyAttached(rows, "enter_dma_buf_stats_setup_");
  if (!releaseRow && !setupRow && expectedTotals.empty()) {
    expect(Count<DmabufRecord>(seen, [](auto&) { return true; }) == 0, "dma-buf records although no row attached");
    expect(notices == 0, "50005 notices although no dma-buf row attached");
    Note("dma-buf: no dma-buf row applies to this kernel; the exerciser's buffers gave no records, as expected");
    return result->Report("dmabuf", failure,
                          StringPrintf("%zu buffers exercised, rows skipped by version", buffers.size()));
  }
  for (const auto& entry : buffers) {
    const std::string& name = entry.first;
    const ExercisedBuffer& b = entry.second;
    auto records = [&](uint32_t type, pid_t who) {
      return All<DmabufRecord>(seen, [&](const DmabufRecord& r) {
        return r.header.type == type && r.pid == who && r.bufId == b.inode && r.size == b.size;
      });
    };
    const std::string label =
        StringPrintf("buffer %s (inode %llu)", name.c_str(), static_cast<unsigned long long>(b.inode));
    if (setupRow)
      expect(records(TAVO_EVENT_DMABUF_SETUP, b.exporter).size() == 1, label + ": setup record of the exporter");
    if (releaseRow)
      expect(records(TAVO_EVENT_DMABUF_RELEASE, b.exporter).size() == 1, label + ": release by the exporter");
    for (const BufferUse& use : uses) {
      if (use.buffer != name || !AnyAttached(rows, use.kind->takeRow)) continue;
      const auto taken = records(use.kind->take, use.pid);
      const auto dropped = records(use.kind->drop, use.pid);
      // A repeated use (two devices of one kind) gives a record per use.
      const size_t times = std::count_if(uses.begin(), uses.end(), [&](const BufferUse& u) {
        return u.buffer == name && u.kind == use.kind && u.pid == use.pid;
      });
      expect(taken.size() == times && dropped.size() == times &&
                 std::equal(taken.begin(), taken.end(), dropped.begin(), dropped.end(),
                            [](auto& t, auto& d) { return t.mapKey == d.mapKey; }),
             label + StringPrintf(": %zu %s and %s records of pid %d (saw %zu and %zu)", times,
                                  RawEventName(use.kind->take), RawEventName(use.kind->drop), use.pid, taken.size(),
                                  dropped.size()));
    }
  }
  for (const auto& [p, totals] : expectedTotals) {
    const std::vector<int64_t> got = totalsOf(seen, p);
    std::string sequence;
    for (int64_t total : got) sequence += StringPrintf(" %lld", static_cast<long long>(total));
    expect(got == totals, StringPrintf("50005 of pid %d up by the size and back to 0 for each of %zu uses (saw:%s)",
                                       p, totals.size() / 2, sequence.c_str()));
  }
  // Every type the attached rows can send has come (a use left out would
  // otherwise pass unnoticed).
  std::set<uint32_t> wanted;
  if (setupRow) wanted.insert(TAVO_EVENT_DMABUF_SETUP);
  if (releaseRow) wanted.insert(TAVO_EVENT_DMABUF_RELEASE);
  for (const UseKind& kind : kUseKinds)
    if (AnyAttached(rows, kind.takeRow)) wanted.insert({kind.take, kind.drop});
  const std::set<uint32_t> got = DmabufTypes(seen);
  expect(std::includes(got.begin(), got.end(), wanted.begin(), wanted.end()),
         "record types" + TypeList(wanted) + " expected, saw" + TypeList(got));
  if (!setupRow) Note("dma-buf: no setup records (7) here: the stats_setup rows did not attach");
  std::string made;
  for (const auto& [name, b] : buffers) made += " " + name;
  result->Report("dmabuf", failure,
                 StringPrintf("buffers%s, %zu uses by %zu processes, %d 50005 notices", made.c_str(), uses.size(),
                              pids.size(), notices));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string here = android::base::GetExecutableDirectory();
  std::string bpfd = here + "/../tavo_bpfd/tavo_bpfd";
  std::string exerciser = here + "/tavo_dmabuf_exerciser";
  std::string log = "/tmp/tavo_bpfd.log";
  // The daemon's properties; the kernel's release unless they name another.
  std::vector<std::string> daemonArgs;
  utsname uts{};
  uname(&uts);
  std::string release = uts.release, dmabufRows;
  std::vector<std::string> props;  // as the daemon and doctor are given them
  Tavo::Bpf::TavoOptions options("tavo_vmcheck", "[--bpfd PATH] [--exerciser PATH] [--log PATH] [--prop NAME=VALUE]...");
  options.Text("--bpfd", &bpfd, "PATH", "the daemon to check")
      .Text("--exerciser", &exerciser, "PATH", "the dma-buf exerciser")
      .Text("--log", &log, "PATH", "the daemon's log (its attach report goes beside it)")
      .Value("--prop", [&](const std::string& value) {
        const size_t eq = value.find('=');
        if (eq == std::string::npos || eq == 0) return false;
        if (value.compare(0, eq, Tavo::Bpf::kKernelVersionProperty) == 0) release = value.substr(eq + 1);
        if (value.compare(0, eq, Tavo::Bpf::kDmabufRowsProperty) == 0) dmabufRows = value.substr(eq + 1);
        props.insert(props.end(), {"--prop", value});
        return true;
      }, "NAME=VALUE", "a property for the daemon (and doctor), as tavo_bpfd --prop", "name=value");
  if (const int status = options.ParseOrStatus(argc, argv); status >= 0) return status;
  daemonArgs = props;
  setvbuf(stdout, nullptr, _IOLBF, 0);
  // The rows the daemon chooses, the way it chooses them.
  const int rowsVersion = Tavo::Bpf::AttachRowsVersion(Tavo::Bpf::convertVersionToInt(release), dmabufRows);
  const std::string attachReport = log + ".attach";
  unlink(attachReport.c_str());
  daemonArgs.insert(daemonArgs.end(), {"--attach-report", attachReport});

  Result result;
  unlink(log.c_str());
  tavo_test::DaemonProcess daemon(bpfd, log, daemonArgs);
  const bool up = daemon.Start(120000);
  Collector events;
  TavoClient client([&events](const Event& e) { events.Add(e); });
  int rc = -1;
  for (int i = 0; up && i < 100 && rc != 0; ++i) {
    rc = client.Connect();
    if (rc != 0) usleep(100 * 1000);
  }
  for (uint32_t code : {TAVO_EVENT_SCHED_TASK_CREATE, TAVO_EVENT_SCHED_TASK_EXIT}) {
    if (rc == 0) rc = client.Subscribe(code);
  }
  for (uint32_t code = TAVO_EVENT_DMABUF_SETUP; rc == 0 && code <= TAVO_EVENT_DMABUF_MUNMAP; ++code)
    rc = client.Subscribe(code);
  for (uint32_t code = TAVO_NOTICE_PROCESS_START; rc == 0 && code <= TAVO_NOTICE_DMABUF_TOTAL; ++code)
    rc = client.Subscribe(code);
  if (!up || rc != 0) {
    result.Report("daemon", up ? "cannot subscribe to the service" : "the daemon did not enable its programs");
    std::string text;
    android::base::ReadFileToString(log, &text);
    fprintf(stderr, "%s", text.c_str());
    daemon.Stop();
    printf("vmcheck: rows attached 0, skipped by version 0, failed 0; dma-buf notices 0; dma-buf types none\n");
    return 1;
  }

  const RowCounts rows = CheckRows(attachReport, rowsVersion, &result);
  CheckDoctor(here + "/../tavo_cli/tavoctl", props, attachReport, &result);
  CheckLife(events, &result);
  CheckExits(events, &result);
  CheckOpenFds(rows, KernelFunctions(), &result);
  CheckDmabuf(events, rows, exerciser, &result);
  const std::vector<Event> seen = events.Settle(0);
  const size_t notices = Count<DmabufTotalNotice>(seen, [](auto&) { return true; });
  client.Close();
  result.Report("stop", daemon.Stop() ? "" : "the daemon did not stop cleanly on SIGTERM");
  printf("vmcheck: rows attached %d, skipped by version %d, failed %d; dma-buf notices %zu; dma-buf types%s\n",
         rows.attached, rows.skipped, rows.failed, notices, TypeList(DmabufTypes(seen)).c_str());
  return result.failed == 0 ? 0 : 1;
}
