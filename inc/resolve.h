// Host names and dotted texts to IPv4 addresses.
#pragma once

#include <cstdint>
#include <optional>

// The first IPv4 address of `host` (a name or dotted text) in network byte order, or nothing. May
// wait for the resolver when it is a name. Any thread; logs nothing; errno as the resolver left it.
std::optional<std::uint32_t> resolve_ipv4(const char* host);
