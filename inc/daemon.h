// Start-up: the way from the process entry to one of the two roles.
#pragma once

// The process entry. With exactly one argument, of any text, the daemon runs in the foreground;
// otherwise it detaches first: the parent ends with status 0, or 255 when it cannot fork. Never
// returns in practice.
int daemon_main(int argc, char** argv);

// Waits for a role, then serves in it for good. Main thread. Returns -1 when no role could be taken
// (event 720001, "INIT ROLE FAILED." at LOG_ERROR). Logs "quorsyncd start,master_ip:%s,slave_ip:%s"
// and "quorsyncd_role:master" or "quorsyncd_role:slave" (LOG_INFO).
int run_daemon();
