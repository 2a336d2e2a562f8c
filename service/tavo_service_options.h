// Where the service finds and puts things, and how often it looks. The
// process's service takes the defaults (with the properties below); tests
// and tools build services of their own with other values.
#pragma once

#include <sched.h>

#include <chrono>
#include <string>

#include "bpf/tavo_bpf_pins.h"
#include "event/tavo_client_hub.h"
#include "task/tavo_bpf_task_manager.h"
#include "task/tavo_proc_reader.h"
#include "util/tavo_service_contract.h"

namespace Tavo::Bpf {

struct TavoServiceOptions {
  std::string pinDir = kBpfPinDir;
  std::string procRoot = TavoProcReader::kDefaultRoot;
  std::string dumpDir = kDumpDir;
  TavoClientHubOptions hub;
  // Wait()'s supervision round; a pump that ended is relaunched at most
  // once per round, with the gap doubling up to 16 rounds.
  std::chrono::milliseconds supervisionPeriod{60000};
  // How often the poll thread looks at "sys.tavo_bpf_ready".
  std::chrono::milliseconds readinessPeriod{1000};

  // The defaults with what the properties set: the connection limit
  // ("persist.sys.tavo_bpf.max_connections") and the ids allowed to connect
  // besides root and the service's own uid ("persist.sys.tavo_bpf.allowed_ids",
  // e.g. "1000,g:1007"; unset, kDefaultAllowedIds).
  static TavoServiceOptions FromProperties();
};

}  // namespace Tavo::Bpf
