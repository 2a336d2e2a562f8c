// Typed view of the events the service delivers: raw records 0..14 and the
// notices 50001..50005. Decoding copies each field out of the bytes, so the
// values never point into the receive buffer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

namespace Tavo::Client {

// Common part of the raw records (types 0..14).
struct RecordHeader {
  uint32_t type = 0;
  uint64_t ts = 0;  // nanoseconds since boot
};

struct TaskInitRecord {  // 0
  RecordHeader header;
  int32_t pid = 0;
  int32_t ppid = 0;
  uint32_t uid = 0;
  uint32_t threadNum = 0;
  std::string comm;
  int64_t rssFile = 0;
  int64_t rssAnon = 0;
  int64_t rssShmem = 0;
  int64_t rssSwap = 0;
  int64_t startTime = 0;  // seconds
};

struct RssStatRecord {  // 1
  RecordHeader header;
  int32_t pid = 0;
  int32_t member = 0;  // 0 file, 1 anon, 2 swap, 3 shmem
  int64_t size = 0;    // bytes
};

struct TaskCreateRecord {  // 2
  RecordHeader header;
  int32_t ppid = 0;
  int32_t pid = 0;
  uint32_t uid = 0;
  std::string comm;
  uint32_t kind = 0;  // 1 process, 2 thread
};

struct TaskExitRecord {  // 3
  RecordHeader header;
  int32_t pid = 0;
  std::string comm;
  uint32_t kind = 0;
};

struct DmabufSizeRecord {  // 4
  RecordHeader header;
  int32_t pid = 0;
  uint64_t total = 0;
};

struct CgroupAttachRecord {  // 5
  RecordHeader header;
  int32_t pid = 0;
  int32_t tid = 0;
  int32_t dstRoot = 0;
  int32_t dstLevel = 0;
  uint64_t dstId = 0;
  std::string comm;
  std::string dstPath;
};

struct FdUpdateRecord {  // 6
  RecordHeader header;
  int32_t pid = 0;
  int32_t fd = 0;
  uint64_t fdCount = 0;
  std::string comm;
};

struct DmabufRecord {  // 7..14; header.type says which operation
  RecordHeader header;
  int32_t pid = 0;
  uint64_t size = 0;
  uint64_t mapKey = 0;
  uint64_t bufId = 0;
};

struct ProcessStartNotice {  // 50001
  int32_t pid = 0;
  int32_t ppid = 0;
  uint32_t uid = 0;
  std::string comm;
};

struct ProcessExitNotice {  // 50002
  int32_t pid = 0;
  std::string comm;
};

struct ThreadCountNotice {  // 50003
  int32_t pid = 0;
  int32_t ppid = 0;
  uint32_t uid = 0;
  uint32_t oldThreadNum = 0;
  uint32_t threadNum = 0;
};

// Order of the four sizes: file, anonymous, swap, shared.
struct MemoryNotice {  // 50004
  int32_t pid = 0;
  int32_t ppid = 0;
  uint32_t uid = 0;
  std::string comm;
  std::array<int64_t, 4> current{};
  std::array<int64_t, 4> reported{};
};

struct DmabufTotalNotice {  // 50005
  int32_t pid = 0;
  uint32_t uid = 0;
  std::string comm;
  int64_t total = 0;
};

// An event that could not be decoded: unknown code, or fewer bytes than its
// layout needs (expected then holds the layout's length).
struct DecodeError {
  enum class Reason { kUnknownCode, kTooShort };
  Reason reason = Reason::kUnknownCode;
  uint32_t code = 0;  // 0 when even the code was missing
  size_t length = 0;
  size_t expected = 0;
};

using Event = std::variant<DecodeError, TaskInitRecord, RssStatRecord, TaskCreateRecord,
                           TaskExitRecord, DmabufSizeRecord, CgroupAttachRecord, FdUpdateRecord,
                           DmabufRecord, ProcessStartNotice, ProcessExitNotice, ThreadCountNotice,
                           MemoryNotice, DmabufTotalNotice>;

// Layout length of a code, 0 for an unknown code.
size_t EventLayoutLength(uint32_t code);
// Decodes one event as the service sent it (the data of a command-3 package).
// Longer input is accepted (trailing bytes ignored); shorter is an error.
Event DecodeEvent(const char* data, size_t length);
// The code an event was decoded from (DecodeError: the code seen).
uint32_t EventCode(const Event& event);

}  // namespace Tavo::Client
