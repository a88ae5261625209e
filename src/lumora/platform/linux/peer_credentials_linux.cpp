#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include "lumora/platform/peer_credentials.hpp"

namespace lumora::PeerCredentials {

std::optional<Peer> of(int fd) {
    ucred cred{};
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || len != sizeof cred) return std::nullopt;
    return Peer{static_cast<uint32_t>(cred.uid), static_cast<uint32_t>(cred.gid), static_cast<int32_t>(cred.pid)};
}

uint32_t currentUserId() { return static_cast<uint32_t>(::geteuid()); }

}  // namespace lumora::PeerCredentials
