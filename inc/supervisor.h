// The slave's watch over its master: heartbeat, countdown, take-over and step-down.
#pragma once

// Runs as slave until SIGTERM; returns after the receiver thread has ended, or at once when there
// is no datagram socket ("Udp server socket error:%s\n" at LOG_INFO). Main thread. Logs "start
// slave process" (LOG_INFO) and "bottle=%d, status=%d" every 2 seconds (LOG_DEBUG).
void run_slave();

// Sends one heartbeat over the datagram socket `fd` to the master at `master_address` (dotted
// text). Logs "gethostname %s error:%s\n" or "send data error %s:%d:%s\n" (LOG_ERROR): the beat is
// then simply missed.
void send_heartbeat(int fd, const char* master_address);

// Take-over: event 720007, "become a master host" (LOG_INFO), boot services started.
void become_master();

// Step-down: event 720008, "restore to be a slave host" (LOG_INFO), boot services stopped.
void restore_slave();

// The SIGTERM handler: removes the semaphore and asks both loops to stop; async-signal-safe.
void on_sigterm(int signal_number);
