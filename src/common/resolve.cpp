#include "resolve.h"

#include <netdb.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

std::optional<std::uint32_t> resolve_ipv4(const char* host) {
    std::vector<char> buffer(1024);
    hostent entry{};
    hostent* found = nullptr;
    int cause = 0;
    while (gethostbyname_r(host, &entry, buffer.data(), buffer.size(), &found, &cause) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) {
        return std::nullopt;
    }
    std::uint32_t address = 0;
    std::memcpy(&address, found->h_addr_list[0], sizeof address);
    return address;
}

char* ip_to_string(std::uint32_t address) {
    const auto octet = [address](unsigned n) {
        return (address >> (8 * n)) & 0xFFU;
    };
    std::string text = std::to_string(octet(0));
    for (unsigned n = 1; n < 4; ++n) {
        text += '.' + std::to_string(octet(n));
    }
    return strdup(text.c_str());
}
