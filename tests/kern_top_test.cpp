// tavoctl top against the real daemon on this machine's kernel, seen three
// ways at once: on a terminal (tmux: send-keys types, capture-pane reads),
// as --batch text frames and as --json frames.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <android-base/parsedouble.h>
#include <android-base/parseint.h>
#include <android-base/strings.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <sys/mount.h>
#include <sys/stat.h>

#include "bpf/tavo_bpf_pins.h"
#include "bpf/tavo_bpf_records.h"
#include "tests/support/children.h"
#include "tests/support/tavoctl_child.h"
#include "tests/support/test_env.h"
#include "tests/support/tavo_harness.h"

namespace {

using tavo_test::Child;

constexpr int64_t kMiB = 1 << 20;
constexpr int kDeadlineMs = 30000;

// What a frame says: is the service reachable, and the rows in order.
struct Seen {
  bool reachable = false;
  std::vector<std::string> names;
  std::vector<int64_t> anon;  // bytes, -1 unknown

  int Index(const std::string& name) const {
    for (size_t i = 0; i < names.size(); ++i) {
      if (names[i] == name) return static_cast<int>(i);
    }
    return -1;
  }
};

int64_t ParseSize(const std::string& text) {
  const std::vector<std::string> parts = android::base::Split(text, " ");
  double value = 0;
  if (!android::base::ParseDouble(parts[0], &value)) return -1;
  const int64_t unit = parts.size() < 2 ? 1 : parts[1] == "KiB" ? 1024 : parts[1] == "MiB" ? kMiB : kMiB << 10;
  return static_cast<int64_t>(value * unit);
}

// A screen or a --batch frame: rows are the lines under the titles whose PID
// column holds a number; fields are cut at the titles' positions.
Seen ParseText(const std::string& frame) {
  Seen seen;
  seen.reachable = frame.find("service: connected") != std::string::npos;
  const std::vector<std::string> lines = android::base::Split(frame, "\n");
  size_t title = 0;
  while (title < lines.size() && lines[title].find(" NAME ") == std::string::npos) ++title;
  if (title == lines.size()) return seen;
  const size_t pidEnd = lines[title].find("PID") + 3, name = lines[title].find("NAME");
  const size_t anonEnd = lines[title].find("ANON") + 4;
  for (size_t i = title + 1; i < lines.size(); ++i) {
    int pid = 0;
    if (lines[i].size() < anonEnd ||
        !android::base::ParseInt(android::base::Trim(lines[i].substr(pidEnd - 7, 7)), &pid)) {
      continue;
    }
    seen.names.push_back(android::base::Trim(lines[i].substr(name, 15)));
    seen.anon.push_back(ParseSize(android::base::Trim(lines[i].substr(anonEnd - 8, 8))));
  }
  return seen;
}

Seen ParseJson(const std::string& frame) {
  Seen seen;
  seen.reachable = frame.find("\"service\":\"connected\"") != std::string::npos;
  static const std::regex row("\"name\":\"([^\"]*)\",\"threads\":[0-9]+,\"rss_anon\":([0-9]+|null)");
  for (std::sregex_iterator it(frame.begin(), frame.end(), row), end; it != end; ++it) {
    seen.names.push_back((*it)[1]);
    seen.anon.push_back((*it)[2] == "null" ? -1 : std::stoll((*it)[2]));
  }
  return seen;
}

// The last complete frame in a stream of frames each ended by `end`.
std::string LastFrame(const std::string& out, const std::string& end) {
  const size_t last = out.rfind(end);
  if (last == std::string::npos || last == 0) return "";
  const size_t before = out.rfind(end, last - 1);
  const size_t start = before == std::string::npos ? 0 : before + end.size();
  return out.substr(start, last - start);
}

// Output of a shell command.
std::string Shell(const std::string& command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string out;
  char buf[4096];
  size_t n;
  while (pipe && (n = fread(buf, 1, sizeof(buf), pipe.get())) > 0) out.append(buf, n);
  return out;
}

class KernTopTest : public testing::Test {
 protected:
  void SetUp() override {
    TAVO_REQUIRE_KERNEL();
    if (Shell("command -v tmux").empty()) GTEST_SKIP() << "no tmux (scripts/install-deps.sh installs it)";
    tmux = "tmux -S " + dir + "/tmux.sock ";
    // The daemon makes its dump folder under /data; a tmpfs in this test's
    // own mount namespace keeps that off the machine.
    madeData = mkdir("/data", 0755) == 0;
    ASSERT_EQ(mount("tmpfs", "/data", "tmpfs", 0, "size=16m"), 0) << strerror(errno);
  }
  void TearDown() override {
    Shell(tmux + "kill-server 2>/dev/null");
    umount("/data");
    if (madeData) rmdir("/data");
  }

  tavo_test::TempDir temp;
  const std::string& dir = temp.path();
  std::string tmux;
  bool madeData = false;
};

// A started child appears with its name, its memory grows after it touches
// 64 MiB, sorting by memory puts it first, it goes after it ends; the
// service's absence shows, and clears when it is back.
TEST_F(KernTopTest, ProcessesComeGrowSortAndGoAndServiceLossShows) {
  tavo_test::DaemonProcess daemon(tavo_test::TavoBpfdPath(), dir + "/bpfd.log");
  ASSERT_TRUE(daemon.Start(kDeadlineMs)) << "daemon not ready; log in " << dir;
  ASSERT_EQ(Shell(tmux + "new-session -d -x 160 -y 50 'LANG=C.UTF-8 " + tavo_test::TavoctlPath() +
                  " top --sort pid' && echo ok"),
            "ok\n");
  Child batch({"top", "--batch", "--sort", "memory"});
  Child json({"top", "--json", "--sort", "m"});
  struct View {
    const char* name;
    std::function<Seen()> seen;
  };
  const std::vector<View> views = {
      {"tmux", [&] { return ParseText(Shell(tmux + "capture-pane -p")); }},
      {"batch",
       [&] {
         batch.Poll(0);
         return ParseText(LastFrame(batch.Out(), "\n\n"));
       }},
      {"json",
       [&] {
         json.Poll(0);
         return ParseJson(LastFrame(json.Out(), "\n"));
       }},
  };
  auto expectAll = [&](const char* what, const std::function<bool(const Seen&, const View&)>& holds) {
    for (const View& view : views) {
      EXPECT_TRUE(tavo_test::WaitFor([&] { return holds(view.seen(), view); }, kDeadlineMs))
          << what << " (" << view.name << ")";
    }
  };
  expectAll("connected", [](const Seen& s, const View&) { return s.reachable; });
  Shell(tmux + "send-keys /tavo_top_ Enter");

  tavo_test::ParkedChild small([](int&, int&) { return prctl(PR_SET_NAME, "tavo_top_small"); });
  auto big = std::make_unique<tavo_test::ParkedChild>([](int&, int&) {
    prctl(PR_SET_NAME, "tavo_top_big");
    usleep(3300 * 1000);  // the service sends no memory notice while a process settles
    char* p = static_cast<char*>(mmap(nullptr, 64 * kMiB, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (p == MAP_FAILED) return 1;
    for (int64_t i = 0; i < 64 * kMiB; i += 4096) p[i] = 1;
    return 0;
  });
  ASSERT_EQ(big->report, 0);
  // tmux still sorts by pid and filters to the two.
  const bool smallFirstByPid = small.pid < big->pid;
  expectAll("both named, the big one grown", [&](const Seen& s, const View& view) {
    const int b = s.Index("tavo_top_big"), l = s.Index("tavo_top_small");
    if (b < 0 || l < 0 || s.anon[b] < 64 * kMiB) return false;
    return std::string(view.name) != "tmux" || (s.names.size() == 2 && (l < b) == smallFirstByPid);
  });
  Shell(tmux + "send-keys m");
  expectAll("the big one first by memory", [&](const Seen& s, const View&) {
    const int b = s.Index("tavo_top_big"), l = s.Index("tavo_top_small");
    return b >= 0 && l >= 0 && b < l;
  });
  big.reset();
  expectAll("the ended one gone", [&](const Seen& s, const View&) {
    return s.Index("tavo_top_big") < 0 && s.Index("tavo_top_small") >= 0;
  });
  daemon.Stop();
  expectAll("service not reachable", [](const Seen& s, const View&) { return !s.reachable; });
  EXPECT_NE(Shell(tmux + "capture-pane -p").find("service: NOT REACHABLE"), std::string::npos);
  ASSERT_TRUE(daemon.Start(kDeadlineMs));
  expectAll("service back", [](const Seen& s, const View&) { return s.reachable; });

  Shell(tmux + "send-keys q");
  EXPECT_TRUE(tavo_test::WaitFor([&] { return Shell(tmux + "has-session 2>/dev/null && echo up").empty(); },
                                 kDeadlineMs));
  for (Child* child : {&batch, &json}) {
    child->Signal(SIGTERM);
    EXPECT_EQ(child->Finish(), 0) << child->Err();
  }
}

}  // namespace
