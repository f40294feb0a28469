// All that the master role does: answering datagrams.
#pragma once

#include <netinet/in.h>

// Opens the master's UDP port, starts the work server and serves datagrams, one at a time, each
// over a TCP connection back to its sender. Main thread. Returns only when the work server cannot
// be started ("new PK_SyncServer...", "m_SyncServer->Start ..." at LOG_ERROR), when receiving fails
// ("recvfrom() error:%s\n" at LOG_ERROR) or when slave_exit_requested is 1. Ends the process with
// status 1 when there is no socket ("Udp server socket error:%s\n") or no port ("Bind error:%s\n",
// both LOG_INFO). Logs per datagram "TcpConnectSv error:%s ip:%s --%s--%d" and "unknow udp
// package." (LOG_ERROR).
void start_master();

// Sends the master's two version stamps on `connection`, in answer to a heartbeat from `sender`; a
// missing one as "null". Logs "beat back to %s :%s" (LOG_DEBUG) and "sendto error:%s\n"
// (LOG_ERROR).
void send_beat_back(int connection, const sockaddr_in& sender);
