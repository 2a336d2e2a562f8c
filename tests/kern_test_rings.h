// Helpers of the kernel-side tests: load and pin the objects, attach a
// pinned tracepoint program, switch the status gates and collect the
// records of one ring directly with libbpf (no service involved).
#pragma once

#include <fcntl.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <gtest/gtest.h>

#include <android-base/unique_fd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bpf/tavo_bpf_records.h"
#include "tools/tavo_loader/tavo_bpf_loader.h"

extern "C" int bpf_attach_tracepoint(int progfd, const char* tp_category, const char* tp_name);

namespace tavo_test {

// A sanitizer runtime allocates for itself (shadow memory, its own
// threads) in a forked child as the child runs.
#if defined(__SANITIZE_THREAD__)
inline constexpr int64_t kSanitizerSlack = 64 << 20;  // shadow of the touched pages
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr int64_t kSanitizerSlack = 8 << 20;
#else
inline constexpr int64_t kSanitizerSlack = 0;
#endif

// Kernels before 6.2 let each task hold its rss counter changes
// (SPLIT_RSS_COUNTING) until a fault finds more than 64 of them, so the
// mm's counters, /proc and the rss_stat tracepoint may trail the touched
// pages by up to 66 (seen: 65 on x86-64 5.10).
inline constexpr int64_t kRssBatchBytes = 66 * 4096;

inline std::string PinPath(const std::string& name) { return std::string("/sys/fs/bpf/tavo/") + name; }

// Opens a pinned program or map; -1 when it is not there.
inline android::base::unique_fd OpenPin(const std::string& name) {
  return android::base::unique_fd(bpf_obj_get(PinPath(name).c_str()));
}

// Attaches a pinned tracepoint program the way the service does. The
// attachment lives as long as the returned descriptor.
inline android::base::unique_fd AttachPinnedTracepoint(const std::string& object, const std::string& prog,
                                                       const char* category, const char* event) {
  android::base::unique_fd progFd = OpenPin("prog_" + object + "_tracepoint_" + prog);
  if (progFd < 0) return android::base::unique_fd();
  return android::base::unique_fd(bpf_attach_tracepoint(progFd.get(), category, event));
}

inline uint64_t StatusValue(const std::string& object, uint32_t key) {
  android::base::unique_fd fd = OpenPin("map_" + object + "_ringbuf_status");
  uint64_t value = 0;
  if (fd >= 0) bpf_map_lookup_elem(fd.get(), &key, &value);
  return value;
}

inline bool SetStatusFlags(const std::string& object, uint64_t flags) {
  android::base::unique_fd fd = OpenPin("map_" + object + "_ringbuf_status");
  uint32_t key = TAVO_STATUS_FLAGS;
  return fd >= 0 && bpf_map_update_elem(fd.get(), &key, &flags, BPF_ANY) == 0;
}

// Collects every record of one object's ring.
class RingCollector {
 public:
  explicit RingCollector(const std::string& object) {
    ringFd_.reset(bpf_obj_get(PinPath("map_" + object + "_ringbuf_map").c_str()));
    if (ringFd_ >= 0) rb_ = ring_buffer__new(ringFd_.get(), &RingCollector::OnSample, this, nullptr);
  }
  ~RingCollector() {
    if (rb_) ring_buffer__free(rb_);
  }
  RingCollector(const RingCollector&) = delete;
  RingCollector& operator=(const RingCollector&) = delete;

  bool ok() const { return rb_ != nullptr; }

  // Drains what is there, waiting up to `ms` for more.
  void Drain(int ms = 100) {
    if (!rb_) return;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < deadline) {
      if (ring_buffer__poll(rb_, 20) <= 0 && std::chrono::steady_clock::now() >= deadline) break;
    }
    ring_buffer__consume(rb_);
  }

  // Records of one type, each copied out whole (so short records are visible as such).
  template <typename T>
  std::vector<T> Of(uint32_t type) const {
    std::vector<T> out;
    for (const std::string& rec : records_) {
      uint32_t t = 0;
      memcpy(&t, rec.data(), sizeof(t));
      if (t != type) continue;
      EXPECT_EQ(rec.size(), sizeof(T)) << "record of type " << type;
      T value{};
      memcpy(&value, rec.data(), std::min(rec.size(), sizeof(T)));
      out.push_back(value);
    }
    return out;
  }

 private:
  static int OnSample(void* ctx, void* data, size_t size) {
    if (size >= sizeof(tavo_event_header))
      static_cast<RingCollector*>(ctx)->records_.emplace_back(static_cast<char*>(data), size);
    return 0;
  }

  android::base::unique_fd ringFd_;
  ring_buffer* rb_ = nullptr;
  std::vector<std::string> records_;
};

// Loads both objects into the test's private bpffs.
inline bool LoadForTest(Tavo::Loader::LoaderOptions options, Tavo::Loader::LoadReport* report) {
  return Tavo::Loader::LoadAndPin(options, report) == 0;
}

// RssAnon of the calling process in bytes, with system calls only (it runs
// in a child forked from a threaded parent).
inline int64_t ChildRssAnonBytes() {
  char buf[4096];
  const int fd = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  const ssize_t n = read(fd, buf, sizeof(buf) - 1);
  close(fd);
  if (n <= 0) return -1;
  buf[n] = 0;
  const char* line = strstr(buf, "RssAnon:");
  if (line == nullptr) return -1;
  int64_t kb = 0;
  for (const char* c = line + 8; *c != 0 && *c != '\n'; ++c) {
    if (*c >= '0' && *c <= '9') kb = kb * 10 + (*c - '0');
  }
  return kb << 10;
}

}  // namespace tavo_test
