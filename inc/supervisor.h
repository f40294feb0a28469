// The slave's watch over its master: heartbeat, countdown, take-over and step-down.
#pragma once

// Runs as slave until SIGTERM; returns after the receiver thread has ended, or at once when there
// is no datagram socket ("Udp server socket error:%s\n" at LOG_INFO). Main thread. Logs "start
// slave process" (LOG_INFO) and "bottle=%d, status=%d" every 2 seconds (LOG_DEBUG).
void run_slave();
