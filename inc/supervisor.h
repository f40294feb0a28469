// The slave's watch over its master: heartbeat, countdown, take-over and step-down.
#pragma once

// Runs as slave until SIGTERM; returns after the receiver thread has ended, or at once when there
// is no datagram socket. Main thread. Logs BEAT_COUNTED every 2 seconds, by which operators and the
// timeline see that the process is at work.
void run_slave();

// What a host does that was a slave and starts as the master: a client list that was kept for an
// unfinished push is put back, since the list of a master changes by other means. Before other
// threads are started.
void leave_slave_role();
