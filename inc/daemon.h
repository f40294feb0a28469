// Start-up: the way from the process entry to one of the two roles.
#pragma once

// The process entry. With exactly one argument, of any text, the daemon runs in the foreground;
// otherwise it detaches first: the parent ends with status 0, or 255 when it cannot fork. Never
// returns in practice.
int daemon_main(int argc, char** argv);
