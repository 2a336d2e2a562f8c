#include "ipc/ipc_peer_policy.h"

#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "util/tavo_log.h"

namespace {
constexpr const char* kTag = "BpfUtils";
constexpr size_t kMaxGroups = 65536;  // NGROUPS_MAX on Linux
}  // namespace

IpcPeerPolicy IpcPeerPolicy::FromAllowedIds(const std::string& list) {
  IpcPeerPolicy policy;
  policy.restricted_ = true;
  for (const std::string& raw : android::base::Split(list, ",")) {
    const std::string entry = android::base::Trim(raw);
    if (entry.empty()) continue;
    const bool group = android::base::StartsWith(entry, "g:");
    unsigned int id = 0;
    if (!android::base::ParseUint(group ? entry.substr(2) : entry, &id)) {
      TAVO_LOGW(kTag, "[IpcPeerPolicy] ignoring allowed id \"%s\"", entry.c_str());
      continue;
    }
    (group ? policy.gids_ : policy.uids_).push_back(id);
  }
  std::sort(policy.uids_.begin(), policy.uids_.end());
  std::sort(policy.gids_.begin(), policy.gids_.end());
  return policy;
}

bool IpcPeerPolicy::ReadPeer(int fd, Peer* peer) {
  ucred credentials{};
  socklen_t length = sizeof(credentials);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
  peer->pid = credentials.pid;
  peer->uid = credentials.uid;
  peer->gid = credentials.gid;
  peer->groups.clear();
#ifdef SO_PEERGROUPS
  // The kernel says how much room the list needs when the first try is short.
  std::vector<gid_t> groups(16);
  for (;;) {
    socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) == 0) {
      groups.resize(bytes / sizeof(gid_t));
      peer->groups = std::move(groups);
      break;
    }
    if (errno != ERANGE || bytes / sizeof(gid_t) > kMaxGroups) break;  // primary gid only
    groups.resize(bytes / sizeof(gid_t));
  }
#endif
  return true;
}

bool IpcPeerPolicy::allows(const Peer& peer) const {
  if (!restricted_ || peer.uid == 0 || peer.uid == geteuid()) return true;
  auto listed = [](const auto& ids, auto id) { return std::binary_search(ids.begin(), ids.end(), id); };
  if (listed(uids_, peer.uid) || listed(gids_, peer.gid)) return true;
  return std::any_of(peer.groups.begin(), peer.groups.end(),
                     [&](gid_t group) { return listed(gids_, group); });
}
