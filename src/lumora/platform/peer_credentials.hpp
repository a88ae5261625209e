#pragma once

#include <cstdint>
#include <optional>

// Who is at the other end of a connected local socket, as the kernel vouches.
namespace lumora::PeerCredentials {

struct Peer {
    uint32_t uid = 0;
    uint32_t gid = 0;
    int32_t pid = 0;  // 0 where the platform does not tell
    bool operator==(const Peer&) const = default;
};

// The credentials of the process connected to the local stream socket `fd`;
// nothing when the platform cannot tell.
std::optional<Peer> of(int fd);

// The effective user id of this process.
uint32_t currentUserId();

}  // namespace lumora::PeerCredentials
