// IPv4 addresses: from host names and dotted texts, and back.
#pragma once

#include <cstdint>
#include <optional>

// The first IPv4 address of `host` (a name or dotted text) in network byte order, or nothing. May
// wait for the resolver when it is a name. Any thread; logs nothing; errno as the resolver left it.
std::optional<std::uint32_t> resolve_ipv4(const char* host);

// A new "%d.%d.%d.%d" text of an IPv4 address in network byte order; the caller frees it
// (OwnedText). Any thread; logs nothing.
char* ip_to_string(std::uint32_t address);
