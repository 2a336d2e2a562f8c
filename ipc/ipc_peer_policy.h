// Who may connect to a server socket: checked on each accepted peer's
// credentials (SO_PEERCRED, and SO_PEERGROUPS for its supplementary groups
// where the kernel has it). On a device this stands behind the SELinux rule
// that decides which domains may connect to the socket at all.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "util/tavo_export.h"

class TAVO_EXPORT IpcPeerPolicy {
 public:
  struct Peer {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // supplementary
  };

  // Lets every peer in.
  IpcPeerPolicy() = default;
  // Lets in root, this process's own uid, and the ids listed: a comma
  // separated list of uids, and of gids written "g:GID", e.g. "1000,g:1007".
  // Blanks around entries are ignored; entries that do not parse are logged
  // and skipped.
  static IpcPeerPolicy FromAllowedIds(const std::string& list);
  // The credentials of a connected socket's peer; false with errno when
  // they cannot be read (a restricted policy then refuses the peer).
  static bool ReadPeer(int fd, Peer* peer);

  bool restricted() const { return restricted_; }
  // A peer matches by uid, primary gid or any supplementary group.
  bool allows(const Peer& peer) const;

 private:
  bool restricted_ = false;
  std::vector<uid_t> uids_;  // sorted
  std::vector<gid_t> gids_;  // sorted
};
