#include "master_addresses.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>

#include "address_list.h"
#include "keys.h"
#include "own_role.h"
#include "owned.h"
#include "resolve.h"

namespace {

AddressList& listed_paths() {
    // Never destroyed: the receiver may ask for it while the process ends.
    static auto& list = *new AddressList(KEY_MASTER_PATHS);
    return list;
}

}  // namespace

std::vector<std::string> master_paths() {
    std::vector<std::string> paths = listed_paths().items().value_or(std::vector<std::string>{});
    std::erase_if(paths, [](const std::string& path) {
        return path == master_ip || inet_addr(path.c_str()) == INADDR_NONE;
    });
    return paths;
}

bool is_masters(std::uint32_t address) {
    if (address == inet_addr(master_ip)) {
        return true;
    }
    const auto paths = master_paths();
    return std::any_of(paths.begin(), paths.end(), [address](const std::string& path) {
        return inet_addr(path.c_str()) == address;
    });
}

std::uint32_t peer_of(int connection) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    (void)getpeername(connection, reinterpret_cast<sockaddr*>(&peer), &length);
    return peer.sin_addr.s_addr;
}

std::string masters_end_of(int connection) {
    const std::uint32_t peer = peer_of(connection);
    if (peer == inet_addr(master_ip) || !is_masters(peer)) {
        return master_ip;
    }
    const OwnedText dotted(ip_to_string(peer));
    return dotted ? dotted.get() : master_ip;
}
