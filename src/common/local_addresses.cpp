#include "local_addresses.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "keys.h"
#include "log.h"
#include "owned.h"
#include "resolve.h"
#include "store.h"
#include "text.h"

namespace {

constexpr const char* INTERFACE_TABLE = "/proc/net/dev";
constexpr std::string_view COUNTING_PREFIX = "eth";
constexpr int TABLE_HEADER_LINES = 2;

// The name in a line "  eth0: 1234 ...": right-aligned, before the colon.
std::string interface_name(const std::string& line) {
    const std::string before_colon = line.substr(0, line.find(':'));
    const std::size_t blank = before_colon.rfind(' ');
    return blank == std::string::npos ? before_colon : before_colon.substr(blank + 1);
}

// Calls `visit` with the address of every counting interface until it returns false. Returns
// whether the table of interfaces could be read.
bool visit_addresses(const std::function<bool(const char*)>& visit) {
    std::ifstream table(INTERFACE_TABLE);
    if (!table) {
        log_message(msg::NO_INTERFACE_TABLE, INTERFACE_TABLE);
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(table, line); ++number) {
        const std::string name = interface_name(line);
        if (number <= TABLE_HEADER_LINES || !name.starts_with(COUNTING_PREFIX)) {
            continue;
        }
        const OwnedText address(interface_ipv4(name.c_str()));
        if (address && !visit(address.get())) {
            break;
        }
    }
    return true;
}

}  // namespace

char* interface_ipv4(const char* name) {
    const OwnedFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        log_message(msg::NO_SOCKET_FOR_ADDRESS);
        return nullptr;
    }
    ifreq request{};
    ifconf table{};
    table.ifc_len = sizeof request;
    table.ifc_req = &request;
    if (ioctl(fd.get(), SIOCGIFCONF, &table) < 0) {
        return nullptr;
    }
    request = {};
    (void)std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
    if (ioctl(fd.get(), SIOCGIFFLAGS, &request) < 0 || (request.ifr_flags & IFF_UP) == 0 ||
        ioctl(fd.get(), SIOCGIFADDR, &request) < 0) {
        return nullptr;
    }
    sockaddr_in address{};
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return ip_to_string(address.sin_addr.s_addr);
}

char* local_ip_list() {
    std::string list;
    const bool readable = visit_addresses([&list](const char* address) {
        list += list.empty() ? "" : ",";
        list += address;
        return true;
    });
    return readable ? strdup(list.c_str()) : nullptr;
}

int is_local_ip(const char* address) {
    if (address == nullptr || *address == '\0') {
        return 0;
    }
    bool found = false;
    visit_addresses([&found, address](const char* local) {
        found = std::strcmp(local, address) == 0;
        return !found;
    });
    return found ? 1 : 0;
}

int first_local_server_ip(char* destination, std::size_t size) {
    const OwnedText list(db_get(CONFIG_DB, KEY_SERVER_LIST));
    return list ? first_local_ip_of(list.get(), destination, size) : -1;
}

int first_local_ip_of(std::string_view server_list, char* destination, std::size_t size) {
    for (const std::string_view piece : split(server_list, ',')) {
        const std::string address(piece);
        if (is_local_ip(address.c_str()) == 1) {
            (void)std::snprintf(destination, size, "%s", address.c_str());
            return 0;
        }
    }
    return -2;
}

int ip_in_list(char* address, const char* list) {
    if (address == nullptr || *address == '\0' || list == nullptr || *list == '\0') {
        return -1;
    }
    if (char* star = std::strchr(address, '*'); star != nullptr) {
        *star = '\0';
    }
    return list_has(list, address) ? 1 : -1;
}
