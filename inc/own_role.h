// The role that this process has taken, and the pair in which it has it.
#pragma once

#include <atomic>

// Dotted addresses of the pair; written once by the role decision, before any other thread starts.
extern char master_ip[32];
extern char slave_ip[32];

// ROLE_* (role.h); after start-up only the slave's supervisor writes it.
extern std::atomic<int> role;
