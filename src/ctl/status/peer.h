// `status --peer`: this host with the settings of the other server of the pair beside its own.
#pragma once

#include <string>

// Problem names beside PROBLEM_NAMES: only a question to the peer brings them up.
inline constexpr const char* PEER_PROBLEM_NAMES[] = {"peer_not_read", "peer_disagrees"};

// Asks the server at `address` and prints both, as a JSON object or for people. Returns the exit
// code: that of `status`, and EXIT_PROBLEM where the settings contradict each other or those of the
// peer cannot be fetched.
int show_both_sides(const std::string& address, bool json);
