// The IPv4 addresses of this host. Only interfaces that are up and whose names begin with "eth"
// count: bond0, br0 or lo never do.
//
// All operations may be called from any thread. They log why the interfaces cannot be read.
#pragma once

#include <cstddef>
#include <string_view>

// The addresses of all counting interfaces, in the order of /proc/net/dev, joined by ",". A new
// text that the caller frees (OwnedText), empty when there is none; null when /proc/net/dev cannot
// be opened.
char* local_ip_list();

// The address of the interface `name` as a new text that the caller frees, or null when it is down
// or has none. The name is not checked for "eth".
char* interface_ipv4(const char* name);

// 1 when a counting interface holds exactly `address` (dotted; may be null), else 0.
int is_local_ip(const char* address);

// Copies the first entry of `server_list` that is local into `destination` (`size` bytes,
// terminated; a longer one is cut). 0, or -1 when there is no server_list, -2 when no entry is
// local; then the destination is left as it is.
int first_local_server_ip(char* destination, std::size_t size);

// The same of a `server_list` that has been read already: 0 or -2.
int first_local_ip_of(std::string_view server_list, char* destination, std::size_t size);

// 1 when `address` equals one of the items of the comma list, else -1. The address is cut at its
// first "*" in place. Both may be null or empty: -1.
int ip_in_list(char* address, const char* list);
