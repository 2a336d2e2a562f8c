// The one table of event names: the names under which the service counts and
// dumps raw records (0 to 14), the short names of the notices (50001 to
// 50005), and the words people type for them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Tavo::Bpf {

inline constexpr int kRawEventCount = 15;  // raw types 0..14

// The counter name of a raw type ("sched_task_create"; type 9 is spelt
// "dambuf_attach" on purpose); "UNKNOW" for anything else.
const char* RawEventName(int type);
// True for the codes a client can subscribe to: 0..14 and 50001..50005.
bool IsSubscribableCode(uint32_t code);

// Short name of a code: the counter name of a raw type, start, end,
// threads, memory or dmabuf for a notice, the number otherwise.
std::string EventName(uint32_t code);
// Resolves one word (a name, an alias or a decimal code) to the codes it
// stands for; false for an unknown word. Aliases: fork, exit, rss, start,
// end, threads, memory, dmabuf, notices (all notices), raw (all raw types),
// all.
bool ResolveEventArgument(const std::string& word, std::vector<uint32_t>* codes);
// Every subscribable code, raw types first.
std::vector<uint32_t> AllEventCodes();

}  // namespace Tavo::Bpf
