// Names of event codes as people type and read them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Tavo::Client {

// Short name of a code: the counter names for raw types ("sched_task_create"),
// start/end/threads/memory/dmabuf for the notices, the number otherwise.
std::string EventName(uint32_t code);

// Resolves one watch argument (a name, an alias or a decimal code) to the
// codes it stands for; false for an unknown word. Aliases: fork, exit, rss,
// start, end, threads, memory, dmabuf, notices (all notices), raw (all raw
// types), all.
bool ResolveEventArgument(const std::string& word, std::vector<uint32_t>* codes);

// Every code a client can subscribe to, raw types first.
std::vector<uint32_t> AllEventCodes();

}  // namespace Tavo::Client
