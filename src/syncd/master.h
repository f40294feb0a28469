// All that the master role does: answering datagrams.
#pragma once

#include <netinet/in.h>

// Opens the master's UDP port, starts the work server and serves datagrams, each over a TCP
// connection back to its sender: those of the servers in `server_list` one at a time on the main
// thread, those of others one at a time on a thread of theirs (inbox.h). When a push has been
// sent, requests for the same set that its receiver sends before it has read it are dropped. Main
// thread. Returns only when the work server cannot be started, when receiving fails or when
// slave_exit_requested is 1. Ends the process with status 1 when there is no socket, no port or no
// thread to answer on. Each of these reasons is logged.
void start_master();

// Sends the master's two version stamps on `connection`, in answer to a heartbeat from `sender`; a
// missing one as "null". Logs BEAT_BACK before it is sent, and a failure to send it.
void send_beat_back(int connection, const sockaddr_in& sender);
