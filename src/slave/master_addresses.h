// The addresses under which the slave's master can be reached: `master`, and the further ones in
// `master_paths`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The items of `master_paths` in config.db as it was within the last second, without the address in
// `master` and without what is no dotted address. Any thread; logs as the store does.
std::vector<std::string> master_paths();

// Whether `address` (network byte order) is one of the master's. Any thread; logs as the store
// does.
bool is_masters(std::uint32_t address);

// The address (network byte order) from which `connection`, a TCP descriptor, comes; 0 when it is
// not connected. Any thread.
std::uint32_t peer_of(int connection);

// The address (dotted) from which `connection`, a TCP descriptor, comes, if it is one of the
// master's; otherwise the one in `master`. Any thread; logs as the store does.
std::string masters_end_of(int connection);
