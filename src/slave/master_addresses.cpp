#include "master_addresses.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>

#include "keys.h"
#include "own_role.h"
#include "owned.h"
#include "resolve.h"
#include "store.h"
#include "text.h"

std::vector<std::string> master_paths() {
    const OwnedText list(db_get(CONFIG_DB, KEY_MASTER_PATHS));
    std::vector<std::string> paths;
    for (const std::string_view item : split(text_of(list), ',')) {
        const std::string path(item);
        if (path != master_ip && inet_addr(path.c_str()) != INADDR_NONE) {
            paths.push_back(path);
        }
    }
    return paths;
}

bool is_masters(std::uint32_t address) {
    if (address == inet_addr(master_ip)) {
        return true;  // without a look at the store: so comes almost every connection
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
